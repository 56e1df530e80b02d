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
  std::uint64_t begin = 0, end = 0;  // the addresses that this is about; of the executable, none
  std::uint64_t bias = 0;            // address in the process - address in the file
  file_range trace;                  // empty: no such section, or no file
  found_places found;                // in that section
  byte_source file;                  // open where there is a section
  char module[256] = {};             // what tbk_getModuleName() says; "" where it was not asked yet
  char wanted[256] = {};             // the name that this was found by; "" if by its addresses

  void reset() {
    file.close();
    begin = end = bias = 0;
    trace = {};
    found = {};
    module[0] = wanted[0] = '\0';
  }
};

// Keeps what is looked up until release_images(), which closes all files. Not nested: a traceback
// that was jumped out of is cleaned up by the next one.
void hold_images();
void release_images();

// Tells of an address that will be looked up before release_images(): those that are known in
// advance are found in one reading of the process map.
void foresee(std::uint64_t pc);

// The image that is mapped at an address; null where there is none.
image* image_at(std::uint64_t pc);

// The same, or else the image that `name` means. What cannot be found has no section.
image& find_image(const char* name, std::uint64_t pc);

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

// The part of a path behind its last slash.
const char* file_name_of(const char* path);

}  // namespace zorvac::diag
#endif
