// The classes of the trace that the shared library shows to the programs that load it.
#pragma once

// Everything else stays hidden: no program may rely on the steps in which a trace is made and read.
#define RINGLOG_API __attribute__((visibility("default")))
