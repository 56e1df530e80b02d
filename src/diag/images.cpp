// An image is found by address. The executable is found by its segments: its file is /proc/PID/exe,
// and the auxiliary vector says where its entry is. Any other image is found in the process map:
// the line that holds the address says which part of which file is there, and the file's segments
// say for which addresses that part was linked.
//
// The line that holds an address may belong to no image, as in a program that copies its code to
// large pages. Then the first line with the image's name in its path is used instead.
#include "diag/images.h"

#include <sys/auxv.h>

#include <cerrno>
#include <cstring>
#include <span>

#include "diag/process_files.h"
#include "diag/texts.h"

namespace zorvac::diag {
namespace {

constexpr std::size_t most_images = 32, most_segments = 16, most_foreseen = 256;

// All this is static, because a signal stack has no room for it; only one traceback runs at a time.
// Where a stack has more images than fit, new ones replace old ones. Foreseen addresses that do not
// fit are looked up one by one.
struct lookup_state {
  bool held = false;

  bool executable_known = false;
  image executable;
  std::size_t segments_used = 0;
  Elf64_Phdr segments[most_segments] = {};  // the executable's

  std::size_t images_used = 0;
  std::size_t replaced_next = 0;  // when all are in use
  image images[most_images];

  std::size_t foreseen_used = 0;
  std::uint64_t foreseen[most_foreseen + 1] = {};  // each once, in ascending order

  byte_source process_file;  // a map or a vector that is being read
};
constinit lookup_state state;

// False where there is nothing to forget. Also closes the place after the last one in use: a jump
// out of add_image() leaves its file open.
bool forget_images() {
  const bool any = state.executable_known || state.images_used != 0;
  for (std::size_t i = 0; i < most_images && i <= state.images_used; ++i) state.images[i].reset();
  state.executable.reset();
  state.executable_known = false;
  state.segments_used = state.images_used = state.replaced_next = 0;
  return any;
}

// If the process has no descriptor left, closes those of the images found so far.
bool made_room() { return errno == EMFILE && forget_images(); }

// The executable's entry, from the auxiliary vector. The kernel's file is tried first, because a
// program that writes past the end of its stack destroys the vector that the C library reads. A
// process that changed its user may not read the file; then the C library's vector is used.
std::uint64_t entry_address() {
  std::uint64_t address = 0;
  const bool known = state.process_file.open_kernel_file(path_of_process_file("/auxv").c_str()) &&
                     find_auxiliary_value(state.process_file, AT_ENTRY, address);
  state.process_file.close();
  return known ? address : getauxval(AT_ENTRY);
}

void open_executable() {
  image& it = state.executable;
  const process_path path = path_of_process_file("/exe");
  const bool open =
      it.file.open_file(path.c_str()) || (made_room() && it.file.open_file(path.c_str()));
  state.executable_known = true;
  Elf64_Ehdr header;
  if (!open || !read_elf_header(it.file, header)) return;
  if (header.e_type == ET_DYN) it.bias = entry_address() - header.e_entry;
  loaded_segments segments(it.file, header);
  while (state.segments_used < most_segments && segments.next(state.segments[state.segments_used]))
    ++state.segments_used;
  it.trace = find_trace_section(it.file, header);
  static char exe_path[4096];  // a signal stack has no room for it
  read_executable_path(exe_path, sizeof exe_path);
  put_text(file_name_of(exe_path), it.module, sizeof it.module);
}

// The executable, if it holds the address.
image* executable_at(std::uint64_t pc) {
  if (!state.executable_known) open_executable();
  const std::uint64_t address = pc - state.executable.bias;
  for (std::size_t i = 0; i < state.segments_used; ++i)
    if (address - state.segments[i].p_vaddr < state.segments[i].p_memsz) return &state.executable;
  return nullptr;
}

// The place for the next image, emptied. It is not in use before keep_place().
image& next_place() {
  image& place =
      state.images[state.images_used < most_images ? state.images_used : state.replaced_next];
  place.reset();
  return place;
}
void keep_place() {
  if (state.images_used < most_images)
    ++state.images_used;
  else
    state.replaced_next = (state.replaced_next + 1) % most_images;
}

// Adds the image of a file whose byte at `offset` is at `address`; null where that is no image.
image* add_image(const char* path, std::uint64_t offset, std::uint64_t address) {
  image& added = next_place();
  if (!added.file.open_file(path)) return made_room() ? add_image(path, offset, address) : nullptr;
  Elf64_Ehdr header;
  if (!read_elf_header(added.file, header) ||
      !find_bias(added.file, header, offset, address, added.bias)) {
    added.reset();
    return nullptr;
  }
  added.trace = find_trace_section(added.file, header);
  if (added.trace.empty()) added.file.close();
  keep_place();
  return &added;
}

void insert_foreseen(std::uint64_t pc) {
  std::size_t place = state.foreseen_used;
  while (place > 0 && state.foreseen[place - 1] > pc) --place;
  if (place > 0 && state.foreseen[place - 1] == pc) return;
  for (std::size_t i = state.foreseen_used++; i > place; --i)
    state.foreseen[i] = state.foreseen[i - 1];
  state.foreseen[place] = pc;
}

// Returns the foreseen addresses that are not the executable's, and empties the list.
std::span<const std::uint64_t> take_foreseen() {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < state.foreseen_used; ++i)
    if (executable_at(state.foreseen[i]) == nullptr) state.foreseen[kept++] = state.foreseen[i];
  state.foreseen_used = 0;
  return {state.foreseen, kept};
}

void open_map() {
  const process_path path = path_of_process_file("/maps");
  if (!state.process_file.open_kernel_file(path.c_str()) && made_room())
    state.process_file.open_kernel_file(path.c_str());
}

// Adds the images of all foreseen addresses; where there is no room for all, that of `wanted` gets
// in. The map is read once for all of them, and only up to the last one.
void read_map(std::uint64_t wanted) {
  const std::span<const std::uint64_t> addresses = take_foreseen();
  open_map();
  map_reader map(state.process_file);
  map_line line;
  for (const std::uint64_t address : addresses) {
    if (line.holds(address) || !map.find(address, line) || *line.path == '\0') continue;
    if (state.images_used == most_images && !line.holds(wanted)) continue;
    image* const added = add_image(line.path, line.offset + (address - line.begin), address);
    if (added == nullptr) continue;
    added->begin = line.begin;
    added->end = line.end;
  }
  state.process_file.close();
}

// What the map says about an address that no image holds, and about an image's name.
struct reply {
  std::uint64_t begin = 0, end = 0;       // of the line that holds the address; 0: there is none
  std::uint64_t address = 0, offset = 0;  // of the first line with the name in its path
  char path[4096] = {};                   // on that line; "" where there is none
};

void look_for_name(const char* name, std::uint64_t pc, reply& answer) {
  open_map();
  map_reader map(state.process_file);
  for (map_line line; map.next(line);) {
    if (answer.path[0] != '\0' && line.begin > pc) break;
    if (line.holds(pc)) {
      answer.begin = line.begin;
      answer.end = line.end;
    }
    if (answer.path[0] != '\0' || std::strstr(line.path, name) == nullptr) continue;
    answer.address = line.begin;
    answer.offset = line.offset;
    put_text(line.path, answer.path, sizeof answer.path);
  }
  state.process_file.close();
}

image* known_image(std::uint64_t pc, const char* name) {
  if (image* const executable = executable_at(pc)) return executable;
  for (std::size_t i = 0; i < state.images_used; ++i) {
    image& known = state.images[i];
    if (pc < known.begin || pc >= known.end) continue;
    if (known.wanted[0] == '\0') return &known;
    if (name != nullptr && std::strncmp(known.wanted, name, sizeof known.wanted - 1) == 0)
      return &known;
  }
  return nullptr;
}

}  // namespace

const char* file_name_of(const char* path) {
  const char* const slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

void foresee(std::uint64_t pc) {
  if (state.foreseen_used < most_foreseen) insert_foreseen(pc);
}

image* image_at(std::uint64_t pc) {
  image* const known = known_image(pc, nullptr);
  if (known != nullptr || state.foreseen_used == 0) return known;
  read_map(pc);
  return known_image(pc, nullptr);
}

image& find_image(const char* name, std::uint64_t pc) {
  if (image* const known = known_image(pc, name)) return *known;
  insert_foreseen(pc);
  read_map(pc);
  if (image* const found = known_image(pc, name)) return *found;

  static reply answer;  // a signal stack has no room for it
  answer = {};
  look_for_name(name, pc, answer);
  image* added = nullptr;
  if (answer.path[0] != '\0') added = add_image(answer.path, answer.offset, answer.address);
  if (added == nullptr) {
    added = &next_place();
    keep_place();
  }
  const bool mapped = answer.end != 0;
  added->begin = mapped ? answer.begin : pc;
  added->end = mapped ? answer.end : pc + 1;
  put_text(name, added->wanted, sizeof added->wanted);
  return *added;
}

void hold_images() {
  release_images();
  state.held = true;
}

void release_images() {
  state.process_file.close();
  forget_images();
  state.foreseen_used = 0;
  state.held = false;
}

image_lease::image_lease() : release_{!state.held} {}
image_lease::~image_lease() {
  if (release_) release_images();
}

}  // namespace zorvac::diag
