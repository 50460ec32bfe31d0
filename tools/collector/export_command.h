// "vxcollector export": what a database file holds, as OTLP JSON or as CSV, page by page.
//
// The file may be written meanwhile: each page is a reading of its own, so that the writer's journal does not
// grow behind a long one.
//
// Errors    Exit codes: 0 all is written, 1 the file cannot be read or the output not be written, 2 a bad
//           command line.
#pragma once

namespace vx::collector {

int exportCommand(int argc, char** argv);

}  // namespace vx::collector
