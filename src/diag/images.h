#ifndef ZORVAC_DIAG_IMAGES_H
#define ZORVAC_DIAG_IMAGES_H
// The images of this process, with their files open. Each is found once for a whole traceback, not
// once for each frame.
#include <cstdint>

#include "diag/byte_source.h"
#include "diag/elf_image.h"
#include "diag/trace_scan.h"

namespace zorvac::diag {

struct image {
  std::uint64_t begin = 0, end = 0;  // the addresses that it was found for; 0 for the executable
  std::uint64_t bias = 0;            // address in the process - address in the file
  file_range trace;                  // empty: no .trace section, or no file
  found_places found;                // in that section
  byte_source file;                  // open if there is a section
  char module[256] = {};             // what tbk_getModuleName() gives; "" until it is called
  char wanted[256] = {};             // the name that it was found by; "" if found by address

  void reset() {
    file.close();
    begin = end = bias = 0;
    trace = {};
    found = {};
    module[0] = wanted[0] = '\0';
  }
};

// Keeps what is looked up until release_images(), which closes all files. Calls do not nest: if a
// jump ended a traceback, the next one cleans up after it.
void hold_images();
void release_images();

// Notes an address that will be looked up before release_images(). All noted addresses are found in
// one reading of the process map.
void foresee(std::uint64_t pc);

// The image that is mapped at an address; null where there is none.
image* image_at(std::uint64_t pc);

// The same, or else the image that has this name. An image that cannot be found has no section.
image& find_image(const char* name, std::uint64_t pc);

// Releases at its end what was looked up, unless a traceback holds the images.
class image_lease {
 public:
  image_lease();
  ~image_lease();
  image_lease(const image_lease&) = delete;
  image_lease& operator=(const image_lease&) = delete;

 private:
  bool release_;
};

// The part of a path after its last slash.
const char* file_name_of(const char* path);

}  // namespace zorvac::diag
#endif
