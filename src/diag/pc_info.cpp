// Finds the image, routine, source file and line of an address.
#include <dlfcn.h>
#include <zorvac/diag.h>

#include <cstring>

#include "diag/errno_guard.h"
#include "diag/images.h"
#include "diag/texts.h"
#include "diag/trace_scan.h"

// The reference is weak and names the oldest symbol version. Weak, because before glibc 2.34 the
// routine is in a library of its own, which a program need not load. The oldest version, because
// the loader refuses a library that needs a version which is missing, even for a weak reference;
// the newest version of this symbol exists only since glibc 2.34.
#pragma weak dladdr
__asm__(".symver dladdr, dladdr@GLIBC_2.2.5");

namespace zorvac::diag {
namespace {

// The file name of the object that holds an address, as the loader knows it.
const char* name_from_loader(std::uint64_t pc) {
  Dl_info object;
  if (dladdr == nullptr) return tbk__default_unknown;
  const bool known =
      dladdr(reinterpret_cast<void*>(pc), &object) != 0 &&  // NOLINT(performance-no-int-to-ptr)
      object.dli_fname != nullptr && *file_name_of(object.dli_fname) != '\0';
  return known ? file_name_of(object.dli_fname) : tbk__default_unknown;
}

}  // namespace
}  // namespace zorvac::diag

using namespace zorvac::diag;

extern "C" {

void tbk_getModuleName(uint64_t pc, char* buffer, size_t bytes) {
  const errno_guard unchanged;
  const image_lease lease;
  image* const holder = image_at(pc);
  if (holder == nullptr) {
    put_text(name_from_loader(pc), buffer, bytes);
    return;
  }
  // dladdr goes through all symbols of the object, so it is called once for each image.
  if (holder->module[0] == '\0')
    put_text(name_from_loader(pc), holder->module, sizeof holder->module);
  put_text(holder->module, buffer, bytes);
}

void tbk_get_pc_info_pie(const char* image_name, uint64_t pc, uint64_t* load_bias,
                         tbk_pc_info* info) {
  put_unknown(info->routine);
  put_unknown(info->file);
  info->line = 0;
  if (image_name == nullptr || *image_name == '\0') return;
  if (std::strcmp(image_name, tbk__default_unknown) == 0) return;

  const errno_guard unchanged;
  const image_lease lease;
  image& holder = find_image(image_name, pc);
  if (load_bias != nullptr && holder.bias != 0) *load_bias = holder.bias;
  scan_trace(holder.file, holder.trace, pc - holder.bias, holder.found, *info);
}

void tbk_get_pc_info(const char* image_name, uint64_t pc, uint64_t* load_bias, tbk_pc_info* info) {
  tbk_get_pc_info_pie(image_name, pc, load_bias, info);
}
}
