#ifndef ZORVAC_TOOLS_IMAGE_H
#define ZORVAC_TOOLS_IMAGE_H
// An executable or shared object, and its `.trace` section.
#include <libelf.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zorvac::mktrace {

// An image to read. The constructor checks that it is an ELF file for this system and that all its
// headers and sections are inside the file; if not, it throws a failure.
class image {
 public:
  explicit image(const std::string& path);

  [[nodiscard]] Elf* elf() const { return elf_.get(); }
  [[nodiscard]] std::optional<std::vector<unsigned char>> trace_section() const;

 private:
  std::unique_ptr<Elf, int (*)(Elf*)> elf_{nullptr, elf_end};
};

// Writes `input` with the given `.trace` section, which replaces an old one, to `output`, which may
// be the same file. Follows a symbolic link. The new file is written next to the old one and
// renamed when it is complete, so nobody sees a part of it, and a process that runs the old one
// keeps it. On an error it throws a failure and has changed nothing.
void write_with_trace(const std::string& input, std::vector<unsigned char> section,
                      const std::string& output);

}  // namespace zorvac::mktrace
#endif
