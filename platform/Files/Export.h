// The locks and owners of files that the shared library shows to the programs that load it.
#pragma once

// Everything else stays hidden.
#define FILES_API __attribute__((visibility("default")))
