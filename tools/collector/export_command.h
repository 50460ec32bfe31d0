// "vxcollector export": what a store holds, a database file or a server, as OTLP JSON or as CSV, page by
// page.
//
// The store may be written meanwhile: a page has been read and let go of before it is written out, so that
// nothing waits, and no journal grows, behind an output that does.
//
// Errors    Exit codes: 0 all is written; 1 the store cannot be read or the output not be written, and what
// was
//           written until then is not all; 2 a bad command line.
#pragma once

namespace vx::collector {

int exportCommand(int argc, char** argv);

}  // namespace vx::collector
