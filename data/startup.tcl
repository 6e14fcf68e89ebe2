# The first-run setup. It runs in the window bound to startupwin; it
# collects the user's name and mail address, stores them with the option
# command and ends with doneVMRStartup.
#
# The setup form needs the window commands and the option command. Until
# they are present the setup window stays with its greeting, and the user
# sets General.Fullname and General.MailAddress in default.tcl.
if {[llength [info commands option]] && [llength [info commands _xvt_create_control]]} {
    source [file join [appl_dir] setupform.tcl]
}
