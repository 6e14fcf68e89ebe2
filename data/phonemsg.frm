# The phone message: a form that a compose window shows in its form pane,
# in the window the program names formwin. It is sent as a part of type
# application/tcl-form, written by produce_win_file: a list of the fields
# with what was entered, each as "set phonemsg(field) value".

# Fields: key, label, kind, control id. Kinds: line (one-line field), box
# (a check box), text (the message itself).
set phonemsg_fields {
    for       "For:"              line 11
    caller    "Caller:"           line 12
    company   "Of:"               line 13
    phone     "Phone:"            line 14
    when      "Date and time:"    line 15
    called    "Telephoned"        box  21
    callback  "Please call"       box  22
    again     "Will call again"   box  23
    returned  "Returned your call" box 24
    urgent    "Urgent"            box  25
    message   "Message:"          text 31
}

# Lays the fields out for the form window's size: made (make 1) or moved,
# so that they follow the compose window when it is resized.
proc phonemsg_place {make} {
    global phonemsg_fields
    lassign [_xvt_get_client_rect formwin] left top right bottom
    set margin 8
    set gap 6
    set label_w 110
    set label_h [ideal_height label]
    set edit_h [expr {[ideal_height edit]}]
    set box_h [ideal_height checkbox]
    set x_end [expr {$right - $margin}]
    set x_edit [expr {$margin + $label_w + 4}]
    set y $margin
    set box_x $margin
    set box_w [expr {($right - 2 * $margin) / 3}]
    set boxes 0
    foreach {key label kind id} $phonemsg_fields {
        switch $kind {
            line {
                set ly [expr {$y + ($edit_h - $label_h) / 2}]
                phonemsg_put $make WC_TEXT [list $margin $ly [expr {$margin + $label_w}] [expr {$ly + $label_h}]] \
                    $label phonemsg_${key}_label [expr {$id + 100}]
                phonemsg_put $make TXEDITLINE [list $x_edit $y $x_end [expr {$y + $edit_h}]] \
                    "" phonemsg_$key $id
                incr y [expr {$edit_h + $gap}]
            }
            box {
                set bx [expr {$margin + ($boxes % 3) * $box_w}]
                phonemsg_put $make WC_CHECKBOX [list $bx $y [expr {$bx + $box_w - 4}] [expr {$y + $box_h}]] \
                    $label phonemsg_$key $id
                incr boxes
                if {$boxes % 3 == 0} { incr y [expr {$box_h + $gap}] }
            }
            text {
                if {$boxes % 3 != 0} { incr y [expr {$box_h + $gap}] }
                phonemsg_put $make WC_TEXT [list $margin $y $x_end [expr {$y + $label_h}]] \
                    $label phonemsg_${key}_label [expr {$id + 100}]
                incr y [expr {$label_h + 2}]
                set text_bottom [expr {max($y + 3 * $edit_h, $bottom - $margin)}]
                phonemsg_put $make TXEDIT [list $margin $y $x_end $text_bottom] \
                    "" phonemsg_$key $id
            }
        }
    }
}

proc phonemsg_put {make type rect title name id} {
    if {$make} {
        _xvt_create_control $type $rect $title formwin 0 $name $id
    } else {
        _xvt_move formwin $name $rect
    }
}

proc phonemsg_build {} {
    global windows
    phonemsg_place 1
    keylset windows(formwin) sizecommand {phonemsg_place 0}
    if {![catch {clock format [clock seconds] -format {%Y-%m-%d %H:%M}} now]} {
        txeditctl phonemsg_when set $now
    }
    settitle "Phone Message"
    headerMod Subject "Phone Message"
    _xvt_focus formwin phonemsg_caller
}

# A value as a Tcl word in plain ASCII on one line: the part goes out as
# 7-bit text, so anything else is written as an escape.
proc phonemsg_quote {value} {
    set out "\""
    foreach c [split $value ""] {
        scan $c %c code
        if {$c in {\" \\ $ [ ]}} {
            append out \\ $c
        } elseif {$c eq "\n"} {
            append out \\n
        } elseif {$code < 32 || $code > 126} {
            append out [format [expr {$code > 0xFFFF ? {\U%08x} : {\u%04x}}] $code]
        } else {
            append out $c
        }
    }
    return "$out\""
}

# What was entered, as "set phonemsg(key) value" lines.
proc phonemsg_values {} {
    global phonemsg_fields
    set out "# Phone message\n"
    foreach {key label kind id} $phonemsg_fields {
        if {$kind eq "box"} {
            set value [_xvt_checkbox GET formwin $id]
        } else {
            set value [txeditctl phonemsg_$key get]
        }
        append out "set phonemsg($key) [phonemsg_quote $value]\n"
    }
    return $out
}

# Writes the form's contents to file for sending, with the line ends mail
# wants.
proc produce_win_file {name file} {
    set f [open $file w]
    fconfigure $f -translation crlf -encoding ascii
    puts -nonewline $f [phonemsg_values]
    close $f
}

# Puts back what produce_win_file wrote (a compose window restored after a
# crash). The file is read as data in a safe interpreter: only the values
# of known fields are taken, each into its own control.
proc restore_win_file {name file} {
    global phonemsg_fields
    set f [open $file r]
    fconfigure $f -translation auto -encoding ascii
    set data [read $f 1048576]
    close $f
    set safe [interp create -safe]
    interp limit $safe commands -value 100000
    set failed [catch {interp eval $safe $data} why]
    if {!$failed} {
        foreach {key label kind id} $phonemsg_fields {
            if {![interp eval $safe [list info exists phonemsg($key)]]} continue
            set value [interp eval $safe [list set phonemsg($key)]]
            if {$kind eq "box"} {
                _xvt_checkbox SET formwin $id [expr {$value eq "1"}]
            } else {
                txeditctl phonemsg_$key set $value
            }
        }
    }
    interp delete $safe
    if {$failed} { error "the saved fields could not be read: $why" }
}

phonemsg_build
