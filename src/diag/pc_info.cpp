// Which image an address is in, and which routine, file and line.
#include <dlfcn.h>
#include <sys/auxv.h>
#include <zorvac/diag.h>

#include <cstring>

#include "diag/errno_guard.h"
#include "diag/images.h"
#include "diag/texts.h"
#include "diag/trace_scan.h"

#pragma weak dladdr

namespace zorvac::diag {
namespace {

bool find_object(std::uint64_t pc, Dl_info& object) {
  if (dladdr == nullptr) return false;
  return dladdr(reinterpret_cast<void*>(pc), &object) != 0 &&  // NOLINT(performance-no-int-to-ptr)
         object.dli_fname != nullptr;
}

// The loader knows the executable by what the program was called by, which may be any text. It is
// told by that text, where it is the path or the file name of the executable, or else by its base.
bool is_executable(const Dl_info& object, const char* path) {
  if (std::strcmp(file_name_of(object.dli_fname), file_name_of(path)) == 0) return true;
  Dl_info executable;
  return getauxval(AT_BASE) != 0 && find_object(getauxval(AT_PHDR), executable) &&
         executable.dli_fbase == object.dli_fbase;
}

const char* name_of(const Dl_info& object) {
  const char* path = executable_path();
  if (*path == '\0' || !is_executable(object, path)) path = object.dli_fname;
  const char* name = file_name_of(path);
  return *name == '\0' ? tbk__default_unknown : name;
}

}  // namespace
}  // namespace zorvac::diag

using namespace zorvac::diag;

extern "C" {

void tbk_getModuleName(uint64_t pc, char* buffer, size_t bytes) {
  const errno_guard unchanged;
  const image_lease lease;
  Dl_info object;
  put_text(find_object(pc, object) ? name_of(object) : tbk__default_unknown, buffer, bytes);
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
