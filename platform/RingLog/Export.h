// What of the trace the shared library shows to the programs that load it.
#pragma once

// Everything else stays hidden: the steps in which a trace is made and read are nobody's to rely on.
#define RINGLOG_API __attribute__((visibility("default")))
