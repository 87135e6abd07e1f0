// What the shared library shows to the programs that load it.
#pragma once

// Everything is hidden unless it is marked: the library's surface is what a switch agent needs, no more.
#define KEL_API __attribute__((visibility("default")))
