// Quads in memory to smaller floating-point formats.
#include "quad/narrow.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

float __qtof(const void* a) { return narrow<binary32>(at_address{a}); }
double __qtod(const void* a) { return narrow<binary64>(at_address{a}); }
long double __qtol(const void* a) { return narrow<x87>(at_address{a}); }
