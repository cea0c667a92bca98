// tarnix-check [--json] [-q] [--terms] PATH...
//
// Checks index files, lexicon-only files and bucket directories, reading
// every file in bounded memory, and prints one line per problem:
//   FILE: SECTION: at POSITION: expected X, found Y
// a summary line per file, and a report per bucket directory. Exit status:
// 0 everything sound, 1 a problem found, 2 a usage error.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "check.h"
#include "common/args.h"

using namespace tarnix::inspect;

namespace {

const char USAGE[] =
    "usage: tarnix-check [--json] [-q] [--terms] PATH...\n"
    "  PATH      an index file (.tsidx), a lexicon-only file (TarLex1) or a bucket directory\n"
    "  --json    write the findings as one JSON document\n"
    "  -q        print problems only (no summaries, notes or bucket reports)\n"
    "  --terms   count the distinct terms over each bucket directory\n"
    "  --help    show this help\n"
    "Exit status: 0 sound, 1 a problem found or the report could not be written, 2 usage error.\n";

struct options {
  bool json = false;
  bool quiet = false;
  bool terms = false;
  std::vector<std::string> paths;
};

// ---- text -------------------------------------------------------------------

void print_issue(const file_report& f, const issue& i, bool quiet) {
  if (i.note) {
    if (!quiet) printf("%s: %s: at %s: note: %s\n", f.path.c_str(), i.section.c_str(), i.position.c_str(), i.expected.c_str());
    return;
  }
  printf("%s: %s: at %s: expected %s, found %s\n", f.path.c_str(), i.section.c_str(), i.position.c_str(),
         i.expected.c_str(), i.found.c_str());
}

void print_file(const file_report& f, bool quiet) {
  for (const issue& i : f.issues) print_issue(f, i, quiet);
  const uint64_t stored = f.issues.size();
  if (f.errors + f.notes > stored)
    printf("%s: ... %llu further findings not listed\n", f.path.c_str(),
           static_cast<unsigned long long>(f.errors + f.notes - stored));
  if (quiet) return;
  printf("%s: %s: %llu problem%s, %llu note%s", f.path.c_str(), f.errors == 0 ? "sound" : "UNSOUND",
         static_cast<unsigned long long>(f.errors), f.errors == 1 ? "" : "s",
         static_cast<unsigned long long>(f.notes), f.notes == 1 ? "" : "s");
  if (!f.magic.empty()) printf("; %s", f.magic.c_str());
  if (f.header_ok) {
    if (f.lexicon_only) {
      printf(", %u terms, %llu bytes", f.num_terms, static_cast<unsigned long long>(f.size));
    } else {
      printf(", %u values (%llu deleted), %u terms, %llu postings, times %d..%d, %llu bytes", f.num_values,
             static_cast<unsigned long long>(f.deleted), f.num_terms,
             static_cast<unsigned long long>(f.postings_seen), f.earliest, f.latest,
             static_cast<unsigned long long>(f.size));
    }
  }
  printf("\n");
}

std::string human(uint64_t v) {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  size_t u = 0;
  while (v >= 1024 && u + 1 < sizeof(units) / sizeof(units[0])) {
    v /= 1024;
    ++u;
  }
  return std::to_string(v) + " " + units[u];
}

void print_bucket(const bucket_report& b, bool quiet) {
  if (!b.opened) {
    printf("%s: directory: at open: expected a readable directory, found %s\n", b.path.c_str(), strerror(b.open_errno));
    return;
  }
  for (const file_report& f : b.files) print_file(f, quiet);
  if (quiet) return;
  const char* p = b.path.c_str();
  printf("%s: bucket: %llu index files, %llu bytes, %llu events", p, static_cast<unsigned long long>(b.index_files),
         static_cast<unsigned long long>(b.bytes), static_cast<unsigned long long>(b.events));
  if (b.terms_counted) printf(", %llu distinct terms", static_cast<unsigned long long>(b.distinct_terms));
  printf("\n");
  for (size_t k = 0; k < b.size_classes.size(); ++k) {
    if (b.size_classes[k] == 0) continue;
    const uint64_t lo = k == 0 ? 0 : (1ull << k);
    std::string bar(std::min<uint64_t>(b.size_classes[k], 60), '#');
    printf("%s: sizes: %10s .. <%10s: %5llu %s\n", p, human(lo).c_str(), human(2ull << k).c_str(),
           static_cast<unsigned long long>(b.size_classes[k]), bar.c_str());
  }
  printf("%s: next pass: %u of %u candidate files would be merged (normal mode, at least 8 sources)\n", p, b.next_pass,
         b.candidates);
  for (const lock_info& l : b.locks)
    printf("%s: lock: %s: age %lld s, owner pid %ld on host %s (%s)\n", p, l.name.c_str(),
           static_cast<long long>(l.age_s), l.pid, l.host.empty() ? "?" : l.host.c_str(), l.owner.c_str());
  auto entries = [&](const std::vector<entry_info>& v, const char* what) {
    for (const entry_info& e : v)
      printf("%s: %s: %s: %llu bytes, age %lld s\n", p, what, e.name.c_str(), static_cast<unsigned long long>(e.size),
             static_cast<long long>(e.age_s));
  };
  entries(b.intermediates, "intermediate");
  for (const entry_info& e : b.pre_tsidx) {
    if (e.in_place_as.empty()) {
      entries({e}, "unfinished flush");
    } else {
      // Moving it into place again would count its events twice.
      printf("%s: leftover name: %s: the same file as %s, whose events are in place; remove this name\n", p,
             e.name.c_str(), e.in_place_as.c_str());
    }
  }
  entries(b.part_files, "part file");
  entries(b.delete_markers, "delete marker");
  if (b.need_optimize) printf("%s: marker: tarnix-need-optimize.dat present (an optimize run is asked for)\n", p);
  if (b.optimize_result) printf("%s: status: optimize.result present (a final optimize run completed)\n", p);
  if (!b.params.empty()) printf("%s: parameters: %s\n", p, b.params.c_str());
}

// ---- JSON ----------------------------------------------------------------------

std::string json_file(const file_report& f) {
  std::string s = "{\"path\":" + json_str(f.path) + ",\"magic\":" + json_str(f.magic) +
                  ",\"sound\":" + (f.errors == 0 ? "true" : "false") + ",\"errors\":" + num(f.errors) +
                  ",\"notes\":" + num(f.notes) + ",\"size\":" + num(f.size) +
                  ",\"lexicon_only\":" + (f.lexicon_only ? "true" : "false");
  if (f.header_ok) {
    s += ",\"num_values\":" + num(f.num_values) + ",\"num_terms\":" + num(f.num_terms) +
         ",\"num_postings\":" + num(f.num_postings) + ",\"postings\":" + num(f.postings_seen) +
         ",\"count_sum\":" + num(f.count_sum);
    if (!f.lexicon_only)
      s += ",\"deleted\":" + num(f.deleted) + ",\"earliest\":" + snum(f.earliest) + ",\"latest\":" + snum(f.latest);
  }
  s += ",\"problems\":[";
  bool first = true;
  for (const issue& i : f.issues) {
    if (i.note) continue;
    s += std::string(first ? "" : ",") + "{\"section\":" + json_str(i.section) + ",\"position\":" +
         json_str(i.position) + ",\"expected\":" + json_str(i.expected) + ",\"found\":" + json_str(i.found) + "}";
    first = false;
  }
  s += "],\"notes_list\":[";
  first = true;
  for (const issue& i : f.issues) {
    if (!i.note) continue;
    s += std::string(first ? "" : ",") + "{\"section\":" + json_str(i.section) + ",\"position\":" +
         json_str(i.position) + ",\"text\":" + json_str(i.expected) + "}";
    first = false;
  }
  return s + "]}";
}

std::string json_entries(const std::vector<entry_info>& v) {
  std::string s = "[";
  for (size_t i = 0; i < v.size(); ++i)
    s += std::string(i ? "," : "") + "{\"name\":" + json_str(v[i].name) + ",\"size\":" + num(v[i].size) +
         ",\"age_s\":" + snum(v[i].age_s) +
         (v[i].in_place_as.empty() ? std::string() : ",\"in_place_as\":" + json_str(v[i].in_place_as)) + "}";
  return s + "]";
}

std::string json_bucket(const bucket_report& b) {
  std::string s = "{\"path\":" + json_str(b.path) + ",\"opened\":" + (b.opened ? "true" : "false");
  if (!b.opened) return s + ",\"error\":" + json_str(strerror(b.open_errno)) + "}";
  s += ",\"index_files\":" + num(b.index_files) + ",\"bytes\":" + num(b.bytes) + ",\"events\":" + num(b.events);
  if (b.terms_counted) s += ",\"distinct_terms\":" + num(b.distinct_terms);
  s += ",\"size_classes\":[";
  bool first = true;
  for (size_t k = 0; k < b.size_classes.size(); ++k) {
    if (b.size_classes[k] == 0) continue;
    s += std::string(first ? "" : ",") + "{\"min\":" + num(k == 0 ? 0 : (1ull << k)) + ",\"max_below\":" +
         num(2ull << k) + ",\"files\":" + num(b.size_classes[k]) + "}";
    first = false;
  }
  s += "],\"candidates\":" + num(b.candidates) + ",\"next_pass\":" + num(b.next_pass) + ",\"locks\":[";
  for (size_t i = 0; i < b.locks.size(); ++i) {
    const lock_info& l = b.locks[i];
    s += std::string(i ? "," : "") + "{\"name\":" + json_str(l.name) + ",\"age_s\":" + snum(l.age_s) +
         ",\"pid\":" + snum(l.pid) + ",\"host\":" + json_str(l.host) + ",\"owner\":" + json_str(l.owner) + "}";
  }
  s += "],\"intermediates\":" + json_entries(b.intermediates) + ",\"pre_tsidx\":" + json_entries(b.pre_tsidx) +
       ",\"part_files\":" + json_entries(b.part_files) + ",\"delete_markers\":" + json_entries(b.delete_markers) +
       ",\"need_optimize\":" + (b.need_optimize ? "true" : "false") +
       ",\"optimize_result\":" + (b.optimize_result ? "true" : "false") + ",\"params\":" + json_str(b.params) +
       ",\"files\":[";
  for (size_t i = 0; i < b.files.size(); ++i) s += std::string(i ? "," : "") + json_file(b.files[i]);
  return s + "]}";
}

bool bucket_sound(const bucket_report& b) {
  if (!b.opened) return false;
  for (const file_report& f : b.files)
    if (f.errors != 0) return false;
  return true;
}

int usage_error(const char* msg, const char* arg) {
  fprintf(stderr, "tarnix-check: %s%s\n%s", msg, arg, USAGE);
  return 2;
}

}  // namespace

static int tool_main(int argc, char** argv) {
  options o;
  bool more_options = true;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (more_options && a == "--") {
      more_options = false;
    } else if (more_options && a == "--help") {
      return tools::print_help("tarnix-check", USAGE);
    } else if (more_options && a == "--json") {
      o.json = true;
    } else if (more_options && a == "-q") {
      o.quiet = true;
    } else if (more_options && a == "--terms") {
      o.terms = true;
    } else if (more_options && a.size() > 1 && a[0] == '-') {
      return usage_error("unknown option ", argv[i]);
    } else {
      o.paths.push_back(a);
    }
  }
  if (o.paths.empty()) return usage_error("no PATH given", "");

  bool sound = true;
  std::string json_files, json_buckets;
  for (const std::string& p : o.paths) {
    struct stat st;
    if (stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      bucket_report b;
      check_bucket(p, o.terms, &b);
      sound = sound && bucket_sound(b);
      if (o.json) {
        json_buckets += (json_buckets.empty() ? "" : ",") + json_bucket(b);
      } else {
        print_bucket(b, o.quiet);
      }
    } else {
      file_report f;
      check_file(p, &f);
      sound = sound && f.errors == 0;
      if (o.json) {
        json_files += (json_files.empty() ? "" : ",") + json_file(f);
      } else {
        print_file(f, o.quiet);
      }
    }
    fflush(stdout);
  }
  if (o.json)
    printf("{\"sound\":%s,\"files\":[%s],\"buckets\":[%s]}\n", sound ? "true" : "false", json_files.c_str(),
           json_buckets.c_str());
  // A report that did not reach its reader has not been given.
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "tarnix-check: writing the report failed: %s\n", strerror(errno));
    return 1;
  }
  return sound ? 0 : 1;
}

int main(int argc, char** argv) {
  return tools::run_guarded("tarnix-check", [&] { return tool_main(argc, argv); });
}
