#ifndef ZORVAC_DIAG_IMAGES_H
#define ZORVAC_DIAG_IMAGES_H
// The images of this process, with their files open: found once for a whole traceback rather than
// once a frame.
#include <cstdint>

#include "diag/byte_source.h"
#include "diag/elf_image.h"
#include "diag/trace_scan.h"

namespace zorvac::diag {

struct image {
  char name[256] = {};
  std::uint64_t begin = 0, end = 0;  // the addresses for which it was found by this name
  std::uint64_t bias = 0;            // address in the process - address in the file
  file_range trace;                  // empty: no such section, or no file
  found_routines found;              // in that section
  byte_source file;
};

// Keeps what is looked up until release_images(), which closes all files. Not nested: a traceback
// that was jumped out of is cleaned up by the next one.
void hold_images();
void release_images();

// The image that `name` means for an address in the process. What cannot be found has no section.
image& find_image(const char* name, std::uint64_t pc);

// The path of the executable; "" where it cannot be had.
const char* executable_path();

// Releases what a lookup outside of a traceback has found.
class image_lease {
 public:
  image_lease();
  ~image_lease();
  image_lease(const image_lease&) = delete;
  image_lease& operator=(const image_lease&) = delete;

 private:
  bool release_;
};

// The part of a path behind its last stroke.
const char* file_name_of(const char* path);

}  // namespace zorvac::diag
#endif
