# Procedures that script-built windows call on their events. A window's
# script may redefine them.
#
# windows(name) is a keyed list for every window and control the scripts
# know: windowptr, winname, type and kidlist (the names of its controls, in
# the order they were made); controls also have id, parent, command (run
# when the control is used) and entercommand (run on Enter in it).
#
# This file is read when the interpreter is made, before the option store
# exists: nothing here may call option at load time.
array set windows {}

# Called once a script window exists (its entry is in windows).
proc winmapped {name} {}

# Called when a window goes, before its entries leave windows.
proc windestroyed {name} {}

# The names of the controls of window name that are still known.
proc window_kids {name} {
    global windows
    if {![info exists windows($name)]} { return {} }
    if {![keylget $windows($name) kidlist kids]} { return {} }
    set known {}
    foreach kid $kids {
        if {[info exists windows($kid)]} { lappend known $kid }
    }
    return $known
}

# Moves the focus from the control whose windowptr is ptr to the next one
# (step 1) or the one before (step -1) that can take it, going round the
# end. When ptr is none of the controls, the first (or last) comes first.
proc focus_step {name ptr step} {
    global windows
    set kids [window_kids $name]
    set n [llength $kids]
    if {$n == 0} { return 0 }
    set at [expr {$step > 0 ? -1 : $n}]
    for {set i 0} {$i < $n} {incr i} {
        if {[keylget $windows([lindex $kids $i]) windowptr p] && $p eq $ptr} {
            set at $i
            break
        }
    }
    for {set k 1} {$k <= $n} {incr k} {
        set kid [lindex $kids [expr {($at + $k * $step) % $n}]]
        if {![catch {_xvt_focus $kid} took] && $took} { return 1 }
    }
    return 0
}

proc focus_next_kid {name ptr} { focus_step $name $ptr 1 }
proc focus_prev_kid {name ptr} { focus_step $name $ptr -1 }

# A control of window name was used: run its command, if it has one.
proc activate_control {name id} {
    global windows
    foreach kid [window_kids $name] {
        if {[keylget $windows($kid) id kid_id] && $kid_id == $id} {
            if {[keylget $windows($kid) command command] && $command ne ""} {
                uplevel #0 $command
            }
            return
        }
    }
}

# Focus to the first (or last) control of window name that can take it:
# Tab out of the pane before a form, and Shift-Tab out of the pane after it.
proc focus_first_kid {name} { focus_step $name "" 1 }
proc focus_last_kid {name} { focus_step $name "" -1 }
