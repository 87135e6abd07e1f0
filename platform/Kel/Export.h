// The part of the shared library that the programs that load it can see.
#pragma once

// Everything is hidden unless it is marked: the library's surface is what a switch agent needs, no more.
#define KEL_API __attribute__((visibility("default")))
