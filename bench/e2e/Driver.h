#pragma once

#include <vector>

#include "Sections.h"

namespace e2e {

struct SectionEntry
{
    const char *name;
    Section run;
    bool alsoPinned; // run a second time pinned to processor 0
};

// The end-to-end programs' main: every chosen section in a process of its own
// (this program again, with --section), their figures in one table on
// standard output and, with --out, as JSON ({"figures": [...]}).
//   PROGRAM [--smoke] [--out FILE] [--sections NAME,...]
int runProgram(int argc, char **argv, const char *program, const std::vector<SectionEntry> &sections);

} // namespace e2e
