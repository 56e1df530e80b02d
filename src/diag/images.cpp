// The executable is read through /proc/PID/exe and placed by the auxiliary vector; every other
// image by the process map. An image is found by its name and an address of it, as two may share a
// name.
#include "diag/images.h"

#include <cstring>

#include "diag/process_files.h"
#include "diag/texts.h"

namespace zorvac::diag {
namespace {

// As one traceback runs at a time, all this is static: a signal stack has no room for it. Frames of
// more images than fit take turns.
struct lookup_state {
  image images[8];
  unsigned used = 0, next = 0;  // how many are in use, and which is replaced first when all are
  bool held = false;
  bool executable_known = false;
  char executable[4096] = {};
  byte_source process_file;  // a map or a vector that is being read
};
constinit lookup_state state;

// Images found by a name that is too long are found by its beginning.
bool is_known_by(const image& known, const char* name, std::uint64_t pc) {
  return pc >= known.begin && pc < known.end &&
         std::strncmp(known.name, name, sizeof known.name - 1) == 0;
}

image& next_place() {
  constexpr unsigned places = sizeof state.images / sizeof state.images[0];
  if (state.used < places) return state.images[state.used++];
  image& oldest = state.images[state.next];
  state.next = (state.next + 1) % places;
  return oldest;
}

bool is_executable(const char* name) {
  const char* path = executable_path();
  if (*path == '\0') return false;
  return std::strcmp(name, path) == 0 || std::strcmp(name, file_name_of(path)) == 0;
}

// The bias of an executable that could be loaded anywhere: where the system says its entry is.
std::uint64_t executable_bias(std::uint64_t entry) {
  std::uint64_t address = 0;
  const bool known = state.process_file.open_file(path_of_process_file("/auxv").c_str()) &&
                     find_auxiliary_value(state.process_file, AT_ENTRY, address);
  state.process_file.close();
  return known ? address - entry : 0;
}

// Opens an image's file and finds out where in the process it is. A shared object's addresses count
// from its load address.
void open_image(image& found, const char* name, std::uint64_t pc) {
  static constinit mapping map;
  const bool executable = is_executable(name);
  if (executable) {
    found.end = UINT64_MAX;
    if (!found.file.open_file(path_of_process_file("/exe").c_str())) return;
  } else {
    const bool mapped = state.process_file.open_file(path_of_process_file("/maps").c_str()) &&
                        find_mapping(state.process_file, name, pc, map);
    state.process_file.close();
    found.begin = mapped ? map.begin : 0;
    found.end = mapped ? map.end : UINT64_MAX;
    if (!mapped || !found.file.open_file(map.path)) return;
  }
  Elf64_Ehdr header;
  if (!read_elf_header(found.file, header)) return;
  found.trace = find_trace_section(found.file, header);
  if (header.e_type == ET_DYN)
    found.bias = executable ? executable_bias(header.e_entry) : map.load_address;
}

}  // namespace

const char* file_name_of(const char* path) {
  const char* stroke = std::strrchr(path, '/');
  return stroke == nullptr ? path : stroke + 1;
}

const char* executable_path() {
  if (!state.executable_known) read_executable_path(state.executable, sizeof state.executable);
  state.executable_known = true;
  return state.executable;
}

image& find_image(const char* name, std::uint64_t pc) {
  for (unsigned i = 0; i < state.used; ++i)
    if (is_known_by(state.images[i], name, pc)) return state.images[i];
  image& found = next_place();
  found.file.close();
  found.begin = found.end = found.bias = 0;
  found.trace = {};
  found.found = {};
  put_text(name, found.name, sizeof found.name);
  open_image(found, name, pc);
  return found;
}

void hold_images() {
  release_images();
  state.held = true;
}

void release_images() {
  for (image& used : state.images) used.file.close();
  state.process_file.close();
  state.used = state.next = 0;
  state.executable_known = false;
  state.held = false;
}

image_lease::image_lease() : release_{!state.held} {}
image_lease::~image_lease() {
  if (release_) release_images();
}

}  // namespace zorvac::diag
