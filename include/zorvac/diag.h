#ifndef ZORVAC_DIAG_H
#define ZORVAC_DIAG_H
/** Diagnostics: the stack traceback; further down, the checks that compiled code makes at run time.
 *
 *  A program's handler for fatal signals prints where it failed with one call:
 *
 *    static char text[65536];
 *    static void on_fatal(int number, siginfo_t* info, void* context) {
 *      size_t length = tbk_string_stack_signal(context, text, sizeof text, 1, 1);
 *      write(STDERR_FILENO, text, length);
 *      _exit(128 + number);
 *    }
 *
 *  The walk needs the compiler's unwinder in the process. A C program is not linked with it by
 *  default; docs/abi.md explains how to add it. Routine, file and line come from the `.trace`
 *  section of each image; docs/traceback.md says what is looked up where, and what "Unknown" means.
 *
 *  For every tbk_ routine:
 *    threads    only one traceback may run at a time in a process, and no other thread may call a
 *               tbk_ routine meanwhile; no lock guards that. While a walk runs,
 *               tbk_signal_handler() is the action of every signal in the process, so a signal that
 *               another thread takes meanwhile makes that thread jump into the walk
 *    signals    may be called from a signal handler, also on an alternate stack: a walk takes 3 to
 *               6 KB of stack, which depends on the unwinder and its binding (docs/traceback.md)
 *    memory     nothing is allocated for up to 24 frames. Each further 24 take one block of malloc
 *               (592 bytes), which is freed before the routine returns. Where malloc gives null, or
 *               one of the frames is inside malloc, free, calloc or realloc, the walk ends, and the
 *               frames recorded so far are reported. Files are read through static buffers
 *    locks      dladdr and the unwinder may wait for the dynamic loader's lock; beyond 24 frames
 *               malloc and free may wait for the heap's
 *    errno      unchanged
 *    registers  System V AMD64
 */
#include <setjmp.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** One frame of the stack. */
typedef struct tbk_frame {
  uint64_t pc;             /**< instruction pointer, as the unwinder reports it: the return address
                                of a call, except in the innermost frame and interrupted ones */
  uint64_t return_address; /**< pc of the calling frame; 0 in the last record */
  uint64_t frame_pointer;  /**< always 0 */
} tbk_frame;

/** Status of a walk. */
enum {
  TBK_SUCCESS = 0,
  TBK_FAULT = 1,      /**< a signal arrived during the walk or its report, and ended it; or there
                           was no memory for the outermost frames */
  TBK_BUFFER_FULL = 7 /**< the callback returned TBK_STOP_FULL */
};

/** What a callback returns. */
enum { TBK_CONTINUE = 0, TBK_STOP = -1, TBK_STOP_FULL = -2 };

/** Called for every frame, innermost first.
 *
 *  frame   [in] valid during the call only
 *  hidden  1 for frames of the traceback itself, which should not be shown; else 0 */
typedef int32_t (*tbk_frame_callback)(const tbk_frame* frame, void* user, int32_t hidden);

/** Walks the calling thread's stack and reports its frames.
 *
 *  signal_context  [in] null, or the interrupted code's registers: the third argument of an
 *                  SA_SIGINFO handler, a ucontext_t
 *  user            passed on to the callback
 *  callback        called for each frame once the whole stack has been walked; must return
 *  skip            decides with signal_context how many frames are reported as hidden:
 *
 *                    signal_context with a non-zero instruction pointer   0
 *                    otherwise, skip 0                                    5
 *                    otherwise, skip not 0                                2, those of this routine
 *
 *                  So with a context the frames of the traceback, of the handler and of the
 *                  signal's delivery come first and are shown like all others.
 *  returns         TBK_SUCCESS, TBK_FAULT or TBK_BUFFER_FULL. Without an unwinder in the process,
 *                  TBK_SUCCESS and no frames; tbk_geterrorstring() then gives message 41.
 *
 *  While it runs, tbk_signal_handler() is the action of every signal that has one (1 to 64), and
 *  the signals that faults raise are not blocked. Actions and mask are restored on every way out. A
 *  signal that comes before the walk has begun, or during its malloc or free, is taken right
 *  afterwards. */
uint32_t tbk_trace_stack(const void* signal_context, void* user, tbk_frame_callback callback,
                         uint32_t skip);

/** Writes the traceback of the calling thread as text.
 *
 *  signal_context  [in] as above
 *  buffer          [out] the text, terminated by a zero byte; or null
 *  bytes           size of the buffer; the zero byte counts
 *  table           0: a block of lines for each frame; otherwise: one line for each frame
 *  skip            as above, but 3 frames are hidden where it is not 0
 *  returns         the number of characters written, without the zero byte, at most `bytes`. With
 *                  a null buffer: the size that a buffer must have to take the whole text
 *
 *  Routine and line are looked up one byte before the return address that is shown, where the call
 *  is; in an interrupted frame, at its program counter.
 *
 *  The last 57 bytes are kept for a closing message and its zero byte. A text that does not end
 *  before them (with a zero byte of its own) is cut there, and "\nStack trace buffer overflow;
 *  further frames not shown.\n" follows. After a fault, and where frames are missing, the text
 *  keeps what was written so far, and "\nStack trace terminated abnormally.\n" follows. In a buffer
 *  of fewer than 57 bytes the closing message is cut, too; where its end is missing, the size of
 *  the buffer is returned.
 *
 *  Bytes of names that a terminal takes for commands are shown as one question mark each: 0 to 31,
 *  127, and 128 to 159 outside a UTF-8 character. */
size_t tbk_string_stack_signal(const void* signal_context, char* buffer, size_t bytes,
                               uint32_t table, uint32_t skip);

/** The diagnostic of the last walk: message 40 ("No error"), or message 41 ("You must link with
 *  libunwind to use traceback functionality"); empty before the first walk. At most 100 characters,
 *  in a static buffer that is valid until the next call. The message is looked up here and not
 *  during the walk, because opening the catalogue allocates memory. */
const char* tbk_geterrorstring(void);

/** The fields of a frame record; the third is 0 by design. */
uint64_t tbk_getPC(const tbk_frame* frame);
uint64_t tbk_getRetAddr(const tbk_frame* frame);
uint64_t tbk_getFramePtr(const tbk_frame* frame);

/** Writes the name, without folders, of the file of the image that holds an address. An image is
 *  the executable or a shared object. "Unknown" where there is none.
 *
 *  buffer  [out] the name, cut to bytes - 1 characters, and a zero byte; untouched if bytes is 0 */
void tbk_getModuleName(uint64_t pc, char* buffer, size_t bytes);

/** What is known about an address. */
typedef struct tbk_pc_info {
  char routine[1024]; /**< name, cut to 1023 characters, or "Unknown" */
  char file[4096];    /**< path of the source file, cut to 4095 characters, or "Unknown" */
  uint32_t line;      /**< 0 where it is not known */
} tbk_pc_info;

/** Looks up routine, source file and line of an address.
 *
 *  image      [in] name of the image that holds it: as tbk_getModuleName() gives it, or a path
 *  pc         the address, as the process has it
 *  load_bias  [out] the distance between the image's addresses in the process and those in its
 *             file, stored where it is known and not 0 (set it to 0 before the call); may be null
 *  info       [out] every field is written */
void tbk_get_pc_info_pie(const char* image, uint64_t pc, uint64_t* load_bias, tbk_pc_info* info);

/** The same, by calling tbk_get_pc_info_pie(). */
void tbk_get_pc_info(const char* image, uint64_t pc, uint64_t* load_bias, tbk_pc_info* info);

/** The action of every signal during a walk: jumps to tbk__jmp_env with the value -1. */
void tbk_signal_handler(int number, void* info, void* context) __attribute__((__noreturn__));

/** Where tbk_signal_handler() jumps to: a sigjmp_buf, set by each walk. (jmp_buf is the same type,
 *  and declared in every mode of C.) */
extern jmp_buf tbk__jmp_env;

/** Run-time checks, called by compiled code. A check that fails prints its message between two
 *  empty lines on standard error and ends the process with abort(): no exit handler runs. Names and
 *  places are cut to what the rest of the message, in the language in use, leaves of 511 bytes.
 *  Where there are two, each has half of that, plus what the other leaves of its half. A single
 *  percent sign counts twice, and control characters are shown as question marks.
 *
 *    threads    re-entrant, but reports share a buffer
 *    memory     nothing is allocated unless a check fails
 *
 *  Each of the next two types describes a variable of a frame: its name (null or empty: it has
 *  none), the offset of its first byte from the frame base, and its size, both in bytes. The
 *  compiler puts the 32-bit guard value 0xCCCCCCCC into the 4 bytes before the variable and into
 *  the 4 bytes after it. */
typedef struct zorvac_short_variable {
  int32_t offset;
  int32_t size;
  const char* name;
} zorvac_short_variable;

typedef struct zorvac_long_variable {
  int64_t offset;
  int64_t size;
  const char* name;
} zorvac_long_variable;

/** The variables of a frame. A list whose count is not positive is not read. */
typedef struct zorvac_stack_variables {
  int32_t short_count;
  const zorvac_short_variable* short_entries;
  int32_t long_count;
  const zorvac_long_variable* long_entries;
} zorvac_stack_variables;

/** Checks the guard words of all variables, in the order of the lists; of each variable the word
 *  before it, then the word after it. The first variable with a damaged guard word is reported with
 *  message 53 ("Boundary Run-Time Check Failure for variable '%s'"), or 54 where it has no name.
 *
 *  registers  compiled code calls it in an epilogue, when the result is in its registers. It may
 *             change RDX and the flags, and nothing else, not even a vector register. Compilers
 *             that do not know this treat it like any other call */
void __zorva_rtc_CheckStackVars(const void* unused1, const void* unused2,
                                const zorvac_stack_variables* variables, const void* frame_base);

/** Narrow an integer; the names give the sizes before and after in bytes. The result is the low
 *  part of the value. Where the value is neither the sign extension nor the zero extension of that
 *  part, message 55 ("Conversion Run-Time Check Failure") is reported. */
int8_t _RTC_Check_2_to_1(int16_t value);
int8_t _RTC_Check_4_to_1(int32_t value);
int8_t _RTC_Check_8_to_1(int64_t value);
int16_t _RTC_Check_4_to_2(int32_t value);
int16_t _RTC_Check_8_to_2(int64_t value);
int32_t _RTC_Check_8_to_4(int64_t value);

/** Report that a variable is used without having been set: message 25 with its name; message 60
 *  with its name and the place of the use. */
void __zorva_rtc_uninit_use(const char* name) __attribute__((__noreturn__));
void __zorva_rtc_uninit_use_src(const char* name, const char* where) __attribute__((__noreturn__));

/** A value of _IPO_Check_CP(), passed in two registers. */
typedef struct zorvac_cp_value {
  uint64_t first;
  uint64_t second; /**< read for types 3 and 4 only */
} zorvac_cp_value;

/** Checks a constant that was propagated across routines: returns when the actual value is the
 *  expected one, which the compiler used instead. Otherwise prints the kind of substitution and
 *  both values on standard output, flushes it, and calls abort().
 *
 *  kind  0 formal argument, 1 return value, 2 global variable; any other kind selects the message
 *        with number kind + 2, or an empty text where there is none
 *  type  0 and 1: the first words as integers, printed in hexadecimal and in decimal
 *        2: their low halves as binary32; 5: the first words as binary64. A NaN equals nothing
 *        3 and 4: both words, printed in hexadecimal and in decimal
 *        above 5: message 11 ("Bad second argument") and abort() */
void _IPO_Check_CP(int32_t kind, uint32_t type, zorvac_cp_value expected, zorvac_cp_value actual);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
