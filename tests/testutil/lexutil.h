// Test helpers for lexicon sections: random sorted term sets, sections built
// by either builder, and read-back through the block reader.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace testutil {

// n distinct, strictly ascending, NUL-free terms of 1 to 2047 bytes. With
// long_terms, some terms are 2047 bytes long (several sharing long
// prefixes); prefix chains ("q", "qa", "qab", ...) are always mixed in.
std::vector<std::string> random_terms(std::mt19937& rng, size_t n, bool long_terms);

// Bytes of a section built in memory by st_fclex_create (tperb >= 2).
std::vector<uint8_t> build_with_create(const std::vector<std::string>& terms, uint32_t tperb,
                                       uint32_t uncompressed_size);

// Writes a section at offset of fd with the block writer (put then close);
// returns the writer's close code and sets end.
int write_with_writer(int fd, uint64_t offset, const std::vector<std::string>& terms,
                      uint32_t tperb, uint64_t page_sz, uint64_t* end);

// Bytes of a section built by the block writer (through a temporary file).
std::vector<uint8_t> build_with_writer(const std::vector<std::string>& terms, uint32_t tperb,
                                       uint64_t page_sz = 0);

// Walks the section at offset of fd with a merge cursor; fills terms and
// returns 0, or the first failure code.
int read_with_reader(int fd, uint64_t offset, std::vector<std::string>* terms);

// Sum of term lengths (the block writer's uncompressed size).
uint32_t total_length(const std::vector<std::string>& terms);

// The text escaped for a death-test regular expression (matches it literally).
std::string re_escape(const std::string& text);

}  // namespace testutil
