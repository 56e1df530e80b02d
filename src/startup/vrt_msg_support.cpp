// The message table, its catalogue and the print routine.
//
// All of this serves diagnostics shortly before a process ends: static buffers, no lock, and no
// allocation by this source. Texts are formatted by the C library's overflow-checked routine, which
// ends the process if a text does not fit the buffer.
//
// A child of fork has only the thread that forked. If another thread was opening the catalogue, the
// child's first message restores LANG and opens the catalogue again. Everything else is consistent
// in the child.
#include "startup/vrt_msg_support.h"

#include <nl_types.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/atomic.h"

using zorvac::startup::message_buffer_bytes;
using zorvac::startup::to_standard_error;

// Entries that no routine prints keep their number: companion tools and builds for other systems
// use the same catalogue. No routine reads the categories.
// clang-format off
extern "C" constexpr zorvac::startup::table_entry vrt_msgtab[] = {
    {0, 1, "\n"},
    {1, 4, "Constant propagation error (%s substitution):"},
    {2, 1, "FORMAL"},
    {3, 1, "RETURN"},
    {4, 1, "GLOBAL"},
    {5, 1, "\tI32 %lx != %lx"},
    {6, 1, "\tSI32 %ld != %ld"},
    {7, 1, "\tF32 %f != %f"},
    {8, 1, "\tI64 %lx:%lx != %lx:%lx"},
    {9, 1, "\tSI64 %ld:%ld != %ld:%ld"},
    {10, 1, "\tF64 %f != %f"},
    {11, 4, "Bad second argument"},
    {12, 4, "Fatal Error: Can not initiate the Heap"},
    {13, 4, "Usage: %s input_file output_file"},
    {14, 4, "Usage: %s segment_size input_file [-trace]"},
    {15, 4, "Conversion from text file %s to binary %s completed"},
    {16, 4, "segment_size = 0x%x = %d"},
    {17, 4, "Cannot allocate memory to hold segment (size = 0x%x)"},
    {18, 4, "Input file: %s corrupted"},
    {19, 4, "routine_name = '%s'"},
    {20, 4, "file_name    = '%s'"},
    {21, 4, "prof_dir     = '%s'"},
    {22, 4, "Dynamic profile created from file %s completed"},
    {23, 4, "Fatal Error: This program was not built to run on the processor in your system."},
    {24, 4, "The allowed processors are: %s."},
    {25, 4, "Run-Time Check Failure: The variable '%s' is being used without being initialized"},
    {26, 4, "Error:  Buffer overrun occurred, forced exit"},
    {27, 4, "Initialization of symbol handler failed. Error code %d"},
    {28, 4, "NTDLL module not found"},
    {29, 4, "RtlCaptureContext function not found in ntdll.dll"},
    {30, 4, " Windows XP 64-bit Edition Version 2003 or newer should be used."},
    {31, 4, "StackWalk is terminated abnormally. Error code %d"},
    {32, 4, "Exception is raised during stack walking"},
    {33, 4, "Signal %s is raised"},
    {34, 4, "Signal %s is raised at 0x%p"},
    {35, 1, "SIGSEGV"},
    {36, 1, "SIGILL"},
    {37, 1, "SIGBUS"},
    {38, 1, "SIGFPE"},
    {39, 1, "unknown"},
    {40, 1, "No error"},
    {41, 1, "You must link with libunwind to use traceback functionality"},
    {42, 4, "Zorva(R) Nexil(TM) Duo processors and compatible Zorva processors with supplemental Streaming SIMD Extensions 3 (SSSE3) instruction support"},
    {43, 4, "Zorva(R) Quoral(R) 4 and compatible Zorva processors with Zorva(R) Streaming SIMD Extensions 3 (Zorva(R) SSE3) instruction support"},
    {44, 4, "Zorva(R) Quoral(R) M and compatible Zorva processors"},
    {45, 4, "Zorva(R) Quoral(R) 4 and compatible Zorva processors. Enables new optimizations in addition to Zorva processor-specific optimizations"},
    {46, 4, "Zorva(R) processors with Tarn New Instructions support"},
    {47, 4, "Zorva(R) processors with SSE4.2 and POPCNT instructions support"},
    {48, 4, "Zorva(R) processors with MOVBE instructions support"},
    {49, 4, "Fatal Error: This program was not built to run in your system."},
    {50, 4, "Please verify that both the operating system and the processor support Zorva(R) AVX."},
    {51, 4, "Please verify that both the operating system and the processor support Zorva(R) AVX, F16C and RDRAND instructions."},
    {52, 4, "Please verify that both the operating system and the processor support Zorva(R) AVX2, BMI, LZCNT, HLE, RTM and FMA instructions."},
    {53, 4, "Boundary Run-Time Check Failure for variable '%s'"},
    {54, 4, "Boundary Run-Time Check Failure"},
    {55, 4, "Conversion Run-Time Check Failure"},
    {56, 4, "Please verify that both the operating system and the processor support Zorva(R) %s instructions."},
    {57, 4, " and "},
    {58, 4, "Please verify that your application was built with compatible Zorva(R) libvrt library"},
    {59, 4, "Use of incompatible or internally inconsistent Zorva(R) libvrt library"},
    {60, 4, "Run-Time Check Failure: The variable '%s' is being used in %s without being initialized"},
};
// clang-format on
static_assert(sizeof(vrt_msgtab) / sizeof(vrt_msgtab[0]) == zorvac::startup::message_count);

namespace {

constexpr char catalog_name[] = "vrt_msg.cat";
constexpr int catalog_set = 1;

bool first_msg = true;  // until the first attempt to open the catalogue
bool use_internal_msg = true;
nl_catd message_catalog;
zorvac::atomic<pid_t> opener;  // the process in which a thread is in open_catalog, or 0
// The original LANG, while the environment may have it without its codeset; otherwise null.
zorvac::atomic<const char*> whole_lang;
char get_msg_buf[message_buffer_bytes];
char print_buf[message_buffer_bytes];

bool is_open(nl_catd catalog) {
  return catalog != reinterpret_cast<nl_catd>(-1);  // NOLINT(performance-no-int-to-ptr)
}

// Opens the catalogue for LANG. If there is none, opens the one for LANG without its codeset
// ("de_DE" for "de_DE.UTF-8") and restores LANG afterwards.
nl_catd open_catalog() {
  nl_catd catalog = catopen(catalog_name, 0);
  const char* lang = std::getenv("LANG");
  if (is_open(catalog) || lang == nullptr) return catalog;

  char language[128] = {};
  std::memcpy(language, lang, strnlen(lang, sizeof language - 1));
  char* codeset = std::strchr(language, '.');
  if (codeset == nullptr) return catalog;
  *codeset = '\0';
  whole_lang.store_release(lang);
  setenv("LANG", language, 1);
  nl_catd second = catopen(catalog_name, 0);
  // Restores the old text and not our copy, which may be cut. The C library never frees a value
  // that setenv replaces, so the old text still exists.
  setenv("LANG", lang, 1);
  whole_lang.store_release(nullptr);
  return second;
}

// In a child of fork, undoes what a thread of the parent had not finished. It does not use setenv,
// because that thread may have held setenv's lock. `whole_lang` points into the environment's
// original entry.
//
// The case is recognised by the process id when a message is printed. A fork handler would have to
// be registered at load time, for every program: later, the C library may hold the lock of its
// handlers.
void give_up_opening_of_parent() {
  first_msg = true;
  use_internal_msg = true;
  const char* const lang = whole_lang.load_acquire();
  if (lang == nullptr || environ == nullptr) return;
  constexpr char name[] = "LANG=";
  constexpr std::size_t name_bytes = sizeof name - 1;
  for (char** entry = environ; *entry != nullptr; ++entry)
    if (std::strncmp(*entry, name, name_bytes) == 0)
      *entry = const_cast<char*>(lang - name_bytes);  // NOLINT(*-const-cast)
  whole_lang.store_relaxed(nullptr);
}

// `number` is not checked: it comes from the library, never from a program.
const char* look_up(int number) {
  const pid_t opening = opener.load_acquire();
  if (opening != 0 && opening != getpid()) give_up_opening_of_parent();
  if (first_msg) {
    opener.store_release(getpid());
    first_msg = false;
    message_catalog = open_catalog();
    if (is_open(message_catalog)) use_internal_msg = false;
    opener.store_release(0);
  }
  const char* built_in = vrt_msgtab[number].text;
  if (use_internal_msg) return built_in;
  // The C library may open a truncated catalogue, which then gives empty texts.
  const char* text = catgets(message_catalog, catalog_set, number, built_in);
  return *text != '\0' ? text : built_in;
}

void format(char (&buffer)[message_buffer_bytes], const char* text, va_list arguments) {
  __builtin___vsprintf_chk(buffer, 1, sizeof buffer, text, arguments);
}

}  // namespace

extern "C" const char* __libvrt_get_msg(int msgno, int nargs, ...) {
  if (msgno == 0) return "";
  const char* text = look_up(msgno);
  if (nargs <= 0) return text;
  va_list arguments;
  va_start(arguments, nargs);
  format(get_msg_buf, text, arguments);
  va_end(arguments);
  return get_msg_buf;
}

extern "C" void __libvrt_print(int dest, int msgno, int nargs, ...) {
  FILE* stream = dest == to_standard_error ? stderr : stdout;
  if (msgno != 0) {
    const char* text = look_up(msgno);
    if (nargs > 0) {
      va_list arguments;
      va_start(arguments, nargs);
      format(print_buf, text, arguments);
      va_end(arguments);
      text = print_buf;
    }
    // The text is itself the format, without arguments: the catalogues are written for that.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    std::fprintf(stream, text);
#pragma GCC diagnostic pop
  }
  std::fprintf(stream, "\n");
}
