if {[platform] eq "unix"} { option P unix } else { option P x }
option C [expr {1+2}]
