#ifndef ZORVAC_TOOLS_IMAGE_H
#define ZORVAC_TOOLS_IMAGE_H
// An executable or shared object, and its `.trace` section.
#include <libelf.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zorvac::mktrace {

// An image to be read. It is checked: an ELF file for this system, with all its headers and
// sections inside of the file. Throws failure.
class image {
 public:
  explicit image(const std::string& path);

  [[nodiscard]] Elf* elf() const { return elf_.get(); }
  [[nodiscard]] std::optional<std::vector<unsigned char>> trace_section() const;

 private:
  std::unique_ptr<Elf, int (*)(Elf*)> elf_{nullptr, elf_end};
};

// Writes `input` with the given `.trace` section, in place of one that it may have, to `output`,
// which may be the same file. A symbolic link is followed. The file is written beside the old one
// and takes its place when it is whole; so nobody sees half of it, and whoever runs the old one
// keeps it. Throws failure, and has then changed nothing.
void write_with_trace(const std::string& input, std::vector<unsigned char> section,
                      const std::string& output);

}  // namespace zorvac::mktrace
#endif
