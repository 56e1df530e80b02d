// Reads and writes images. All that is loaded when the program runs keeps its bytes and its place:
// the new section, the section names and the section headers are written after everything else.
//
//   | ELF header, segments, debug information ... | .trace | section names | section headers |
//   0                                             content_end
//
// When an image is written a second time, these three begin at the same place again, so the file
// does not change.
#include "image.h"

#include <fcntl.h>
#include <gelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <utility>

#include "diag/trace_format.h"
#include "failure.h"

namespace zorvac::mktrace {
namespace {

constexpr std::string_view section_name = diag::trace::section_name;

failure system_failure(const std::string& what) {
  return failure{what + ": " + std::strerror(errno)};
}

failure elf_failure(const std::string& what) { return failure{what + ": " + elf_errmsg(-1)}; }

bool fits(std::uint64_t offset, std::uint64_t size, std::uint64_t file_bytes) {
  return offset <= file_bytes && size <= file_bytes - offset;
}

void check_header(const unsigned char* bytes, std::size_t size) {
  if (size < SELFMAG || std::memcmp(bytes, ELFMAG, SELFMAG) != 0) throw failure{"not an ELF file"};
  if (size > EI_CLASS && bytes[EI_CLASS] != ELFCLASS64) throw failure{"not a 64-bit ELF file"};
  if (size < sizeof(Elf64_Ehdr)) throw failure{"truncated"};
  Elf64_Ehdr header;
  std::memcpy(&header, bytes, sizeof header);
  if (bytes[EI_DATA] != ELFDATA2LSB || header.e_machine != EM_X86_64)
    throw failure{"not a file for x86-64"};
  if (header.e_type != ET_EXEC && header.e_type != ET_DYN)
    throw failure{"neither an executable nor a shared object"};
  if (!fits(header.e_shoff, std::uint64_t{header.e_shnum} * header.e_shentsize, size) ||
      !fits(header.e_phoff, std::uint64_t{header.e_phnum} * header.e_phentsize, size))
    throw failure{"truncated"};
}

void check_contents(Elf* elf, std::size_t size) {
  GElf_Phdr segment;
  for (int i = 0; gelf_getphdr(elf, i, &segment) != nullptr; ++i)
    if (!fits(segment.p_offset, segment.p_filesz, size)) throw failure{"truncated"};
  GElf_Shdr header;
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    if (gelf_getshdr(section, &header) == nullptr ||
        (header.sh_type != SHT_NOBITS && !fits(header.sh_offset, header.sh_size, size)))
      throw failure{"truncated"};
  }
}

// The index of the section that holds the section names. Throws a failure.
std::size_t names_index(Elf* elf) {
  std::size_t index = 0;
  if (elf_getshdrstrndx(elf, &index) != 0 || index == 0) throw failure{"no section names"};
  return index;
}

Elf_Scn* find_trace(Elf* elf) {
  const std::size_t names = names_index(elf);
  GElf_Shdr header;
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    if (gelf_getshdr(section, &header) == nullptr) continue;
    const char* name = elf_strptr(elf, names, header.sh_name);
    if (name != nullptr && name == section_name) return section;
  }
  return nullptr;
}

// A file next to `target`. done() gives it the target's name; without that call it is deleted.
class replacement {
 public:
  explicit replacement(std::string target) : target_{std::move(target)} {
    path_ = target_ + ".XXXXXX";
    file_ = mkostemp(path_.data(), O_CLOEXEC);
    if (file_ < 0) throw system_failure("cannot create a file next to " + target_);
  }
  ~replacement() {
    close(file_);
    if (!done_) unlink(path_.c_str());
  }
  replacement(const replacement&) = delete;
  replacement& operator=(const replacement&) = delete;

  [[nodiscard]] int file() const { return file_; }

  // Sets owner and group before the mode, because changing them clears the set-user-ID bit.
  void done(const struct stat& like) {
    if (fchown(file_, like.st_uid, like.st_gid) != 0 && like.st_uid != geteuid() &&
        (like.st_mode & (S_ISUID | S_ISGID)) != 0)
      throw system_failure("cannot keep the owner");
    if (fchmod(file_, like.st_mode & 07777) != 0 || fsync(file_) != 0 ||
        std::rename(path_.c_str(), target_.c_str()) != 0)
      throw system_failure("cannot write " + target_);
    done_ = true;
    sync_folder();
  }

 private:
  // Writes the folder to disk, so that the new name, too, survives a power failure. Errors are
  // ignored: not every file system supports or needs this.
  void sync_folder() const {
    const std::filesystem::path folder = std::filesystem::path{target_}.parent_path() / ".";
    const int file = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file < 0) return;
    fsync(file);
    close(file);
  }

  std::string target_, path_;
  int file_ = -1;
  bool done_ = false;
};

// The file that a path leads to. It need not exist.
std::string resolve(const std::string& path) {
  std::filesystem::path real = path;
  for (int links = 0; std::filesystem::is_symlink(real); ++links) {
    if (links == 40) throw failure{"too many symbolic links: " + path};
    real = real.parent_path() / std::filesystem::read_symlink(real);
  }
  struct stat status {};
  if (stat(real.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) throw failure{"not a regular file: " + real.string()};
    if ((status.st_mode & 0222) == 0 || access(real.c_str(), W_OK) != 0)
      throw failure{"read-only: " + real.string()};
  }
  return real;
}

// The image with a new `.trace` section, in pieces. They are joined here and not by libelf, so that
// everything before them keeps the bytes of the old file.
class edited_file {
 public:
  edited_file(Elf* elf, std::vector<unsigned char> section) : trace_{std::move(section)} {
    std::size_t size = 0;
    const char* bytes = elf_rawfile(elf, &size);
    std::memcpy(&header_, bytes, sizeof header_);
    read_sections(elf);
    content_.assign(bytes, content_end(elf));
    if (described_end() < size && !is_zero(bytes + described_end(), bytes + size))
      throw failure{"has data after its last section, which would be lost"};
    lay_out(elf);
  }

  void write(int file) const {
    write_all(file, content_.data(), content_.size());
    write_all(file, trace_.data(), trace_.size());
    write_all(file, names_.data(), names_.size());
    write_all(file, sections_.data(), sections_.size() * sizeof sections_[0]);
  }

 private:
  void read_sections(Elf* elf) {
    names_index_ = names_index(elf);
    Elf_Scn* trace = find_trace(elf);
    trace_index_ = trace == nullptr ? 0 : elf_ndxscn(trace);
    std::size_t count = 0;
    elf_getshdrnum(elf, &count);
    for (std::size_t i = 0; i < count; ++i) {
      const Elf64_Shdr* section = elf64_getshdr(elf_getscn(elf, i));
      if (section == nullptr) throw elf_failure("cannot read the section headers");
      sections_.push_back(*section);
    }
    if ((sections_[trace_index_].sh_flags & SHF_ALLOC) != 0)
      throw failure{"its .trace section is loaded with the program and cannot be replaced"};
  }

  // The end of everything that keeps its place.
  [[nodiscard]] std::size_t content_end(Elf* elf) const {
    std::size_t end = sizeof header_, segments = 0;
    elf_getphdrnum(elf, &segments);
    end = std::max(end, header_.e_phoff + segments * sizeof(Elf64_Phdr));
    const Elf64_Phdr* segment = elf64_getphdr(elf);
    for (std::size_t i = 0; i < segments; ++i)
      end = std::max(end, segment[i].p_offset + segment[i].p_filesz);
    for (std::size_t i = 1; i < sections_.size(); ++i)
      if (i != trace_index_ && i != names_index_) end = std::max(end, section_end(i));
    return end;
  }

  // The end of everything that the headers describe.
  [[nodiscard]] std::size_t described_end() const {
    return std::max({content_.size(), header_.e_shoff + sections_.size() * sizeof sections_[0],
                     section_end(trace_index_), section_end(names_index_)});
  }

  [[nodiscard]] std::size_t section_end(std::size_t i) const {
    const Elf64_Shdr& section = sections_[i];
    const bool in_file = i != 0 && section.sh_type != SHT_NOBITS;
    return in_file ? section.sh_offset + section.sh_size : 0;
  }

  static bool is_zero(const char* begin, const char* end) {
    return std::all_of(begin, end, [](char c) { return c == 0; });
  }

  void lay_out(Elf* elf) {
    if (trace_index_ == 0) {
      trace_index_ = sections_.size();
      sections_.emplace_back();
    }
    Elf64_Shdr& trace = sections_[trace_index_];
    trace = {};
    trace.sh_name = static_cast<Elf64_Word>(add_name(elf));
    trace.sh_type = SHT_PROGBITS;
    trace.sh_offset = content_.size();
    trace.sh_size = trace_.size();
    trace.sh_addralign = 1;
    Elf64_Shdr& names = sections_[names_index_];
    names.sh_offset = trace.sh_offset + trace.sh_size;
    names.sh_size = names_.size();
    while ((names.sh_offset + names_.size()) % alignof(Elf64_Shdr) != 0) names_ += '\0';
    header_.e_shoff = names.sh_offset + names_.size();
    const bool fits_header = sections_.size() < SHN_LORESERVE;  // else section 0 has the number
    header_.e_shnum = fits_header ? static_cast<Elf64_Half>(sections_.size()) : Elf64_Half{0};
    sections_[0].sh_size = fits_header ? 0 : sections_.size();
    std::memcpy(content_.data(), &header_, sizeof header_);
  }

  // Copies the section names and adds the new one if it is missing. Returns its offset.
  std::size_t add_name(Elf* elf) {
    const Elf_Data* data = elf_rawdata(elf_getscn(elf, names_index_), nullptr);
    if (data == nullptr) throw elf_failure("cannot read the section names");
    names_.assign(static_cast<const char*>(data->d_buf), data->d_size);
    const std::string wanted{section_name.data(), section_name.size() + 1};  // and its zero
    const std::size_t known = names_.find(wanted);
    if (known != std::string::npos) return known;
    names_ += wanted;
    return names_.size() - wanted.size();
  }

  static void write_all(int file, const void* from, std::size_t size) {
    const char* at = static_cast<const char*>(from);
    for (std::size_t left = size; left > 0;) {
      const ssize_t written = ::write(file, at, left);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) throw system_failure("cannot write");
      at += written;
      left -= static_cast<std::size_t>(written);
    }
  }

  Elf64_Ehdr header_{};
  std::string content_, names_;
  std::vector<unsigned char> trace_;
  std::vector<Elf64_Shdr> sections_;
  std::size_t names_index_ = 0, trace_index_ = 0;  // 0: no such section
};

}  // namespace

image::image(const std::string& path) {
  elf_version(EV_CURRENT);
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) throw system_failure("cannot read");
  if (!S_ISREG(status.st_mode)) throw failure{"not a regular file"};
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) throw system_failure("cannot read");
  elf_.reset(elf_begin(file, ELF_C_READ_MMAP_PRIVATE, nullptr));
  std::size_t size = 0;
  const char* bytes = elf_rawfile(elf_.get(), &size);  // maps or reads the whole file
  if (elf_ != nullptr) elf_cntl(elf_.get(), ELF_C_FDDONE);
  close(file);
  if (bytes == nullptr) throw failure{"not an ELF file"};
  check_header(reinterpret_cast<const unsigned char*>(bytes), size);
  check_contents(elf_.get(), size);
}

std::optional<std::vector<unsigned char>> image::trace_section() const {
  Elf_Scn* section = find_trace(elf_.get());
  if (section == nullptr) return std::nullopt;
  const Elf_Data* data = elf_rawdata(section, nullptr);
  if (data == nullptr) throw elf_failure("cannot read the .trace section");
  const auto* bytes = static_cast<const unsigned char*>(data->d_buf);
  return std::vector<unsigned char>(bytes, bytes + data->d_size);
}

void write_with_trace(const std::string& input, std::vector<unsigned char> section,
                      const std::string& output) {
  const image original{input};
  struct stat status {};
  if (stat(input.c_str(), &status) != 0) throw system_failure("cannot read");
  const edited_file edited{original.elf(), std::move(section)};
  replacement copy{resolve(output)};
  edited.write(copy.file());
  copy.done(status);
}

}  // namespace zorvac::mktrace
