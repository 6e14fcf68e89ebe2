# Evaluated when the interpreter is created, before xvt.tcl.
set velmar_platform [platform]
