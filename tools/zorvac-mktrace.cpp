// Makes the `.trace` section of a program from its debug information.
#include <getopt.h>

#include <array>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "encode.h"
#include "failure.h"
#include "image.h"
#include "tables.h"

using namespace zorvac::mktrace;

namespace {

constexpr char help[] =
    R"(Usage: zorvac-mktrace [--demangle[=FORM]] [-o FILE] IMAGE
       zorvac-mktrace --dump IMAGE

Reads the debug information of an executable or shared object and writes its .trace section. A
traceback takes the routine, source file and line of each frame from there.

  -o FILE           write to FILE and leave IMAGE unchanged
  --demangle        write the names of C++ routines as in their source
  --demangle=short  write only the last component of these names
  --dump            print the .trace section of IMAGE as text
  --help            print this text
  --version         print the version
)";

struct arguments {
  std::string image, output;
  std::optional<name_form> names;
  bool dump = false;
};

constexpr int success = 0, failed = 1, misused = 2;

void say(const arguments& a, std::string_view text) {
  std::cerr << "zorvac-mktrace: " << a.image << ": " << text << '\n';
}

void make(const arguments& a) {
  std::vector<unsigned char> section;
  {
    const image input{a.image};
    const tables t = read_tables(input.elf());
    for (const std::string& note : t.notes) say(a, note);
    section = encode(t, a.names.value_or(name_form::linker));
  }
  write_with_trace(a.image, std::move(section), a.output.empty() ? a.image : a.output);
}

void print(const arguments& a) {
  const auto section = image{a.image}.trace_section();
  if (!section) throw failure{"no .trace section"};
  dump(*section, std::cout);
}

int run(const arguments& a) {
  try {
    a.dump ? print(a) : make(a);
    std::cout.flush();
    if (!std::cout) throw failure{"cannot write standard output"};
    return success;
  } catch (const std::exception& e) {
    std::cout.flush();
    say(a, e.what());
    return failed;
  }
}

// The form that --demangle asks for; nothing where there is no such form.
std::optional<name_form> form_of(const char* text) {
  const std::string_view form = text == nullptr ? "full" : text;
  if (form == "full") return name_form::full;
  if (form == "short") return name_form::component;
  return std::nullopt;
}

int misuse() {
  std::cerr << help;
  return misused;
}

}  // namespace

int main(int argc, char** argv) {
  enum { dump_option = 1, demangle_option, help_option, version_option };
  const std::array<option, 6> options{{{"demangle", optional_argument, nullptr, demangle_option},
                                       {"dump", no_argument, nullptr, dump_option},
                                       {"help", no_argument, nullptr, help_option},
                                       {"output", required_argument, nullptr, 'o'},
                                       {"version", no_argument, nullptr, version_option},
                                       {}}};
  arguments a;
  for (int option = 0; (option = getopt_long(argc, argv, "o:", options.data(), nullptr)) != -1;) {
    switch (option) {
      case 'o':
        a.output = optarg;
        break;
      case demangle_option:
        a.names = form_of(optarg);
        if (!a.names) return misuse();
        break;
      case dump_option:
        a.dump = true;
        break;
      case help_option:
        std::cout << help;
        return success;
      case version_option:
        std::cout << "zorvac-mktrace " ZORVAC_VERSION "\n";
        return success;
      default:  // getopt has printed what is wrong
        return misuse();
    }
  }
  if (optind + 1 != argc || (a.dump && (a.names || !a.output.empty()))) return misuse();
  a.image = argv[optind];
  return run(a);
}
