// Calls that a compiler adds to a program built with run-time checks. Without an argument all
// checks pass; "overrun", "narrow", "unset" or "constant" makes one check fail.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <zorvac/diag.h>

#define GUARD 0xCCCCCCCCu

// The frame of copy_name: `name` between its guard words.
struct frame {
  uint32_t before;
  char name[8];
  uint32_t after;
};
static const zorvac_short_variable short_entries[] = {
    {offsetof(struct frame, name), sizeof((struct frame*)0)->name, "name"}};
static const zorvac_stack_variables variables = {1, short_entries, 0, NULL};

// char name[8]; strcpy(name, text); return strlen(name);
static size_t copy_name(const char* text) {
  struct frame frame = {GUARD, "", GUARD};
  char* volatile name = frame.name;
  strcpy(name, text);
  const size_t length = strlen(name);
  __zorva_rtc_CheckStackVars(NULL, NULL, &variables, &frame);
  return length;
}

int main(int argc, char** argv) {
  const char* fault = argc > 1 ? argv[1] : "";
  printf("length %zu\n", copy_name(strcmp(fault, "overrun") == 0 ? "nine char" : "seven c"));
  printf("byte %d\n", _RTC_Check_4_to_1(strcmp(fault, "narrow") == 0 ? 256 : -128));
  if (strcmp(fault, "unset") == 0) __zorva_rtc_uninit_use_src("total", "checks.c:34");

  // The compiler saw only one call, with 5, and replaced the argument by 5.
  const zorvac_cp_value expected = {5, 0};
  const zorvac_cp_value actual = {strcmp(fault, "constant") == 0 ? 6 : 5, 0};
  _IPO_Check_CP(0, 1, expected, actual);
  puts("all checks passed");
  return 0;
}
