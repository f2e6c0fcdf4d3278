// HelpFormatter.h: the long help of a Tcl command, laid out from its parts.
#pragma once
#include <tcl.h>

namespace Utils {
// Sets the interpreter result to the help of command `name`: the summary, the
// description, the option table (pairs of option and description, ended by a null
// option; question marks around option names are stripped) and the examples
// (newline-separated). `usage` and `notes` are optional extra sections (null
// for none). `style` 1 is the long layout. Returns TCL_OK, or TCL_ERROR when the
// interpreter's Tcl is not 8.6. The library calls Tcl through its own stubs
// table, filled from `interp` on the first call. The one symbol libtclmqb.so
// exports (it is built with hidden visibility).
__attribute__((visibility("default")))
int cmdHelpLong(Tcl_Interp* interp, const char* name, const char* usage,
                const char* summary, const char* description, const char* notes,
                const char* examples, const char** table, int style);
}  // namespace Utils
