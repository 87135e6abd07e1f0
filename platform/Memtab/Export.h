// The classes of the table that the shared library shows to the programs that load it.
#pragma once

// Everything else stays hidden: no program may rely on the steps behind reading and writing.
#define MEMTAB_API __attribute__((visibility("default")))
