// What of the table the shared library shows to the programs that load it.
#pragma once

// Everything else stays hidden: the steps behind reading and writing are nobody's to rely on.
#define MEMTAB_API __attribute__((visibility("default")))
