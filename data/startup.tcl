# The first-run setup. The program has made the window startupwin and
# paints the heading "Welcome to Velmar" across its top; this script puts
# the form below it. It collects the user's name and mail address, stores
# them as permanent options (so that they are saved) and ends with
# doneVMRStartup, which closes the window and opens the organizer.

# Fields of the form: option, control name, label, control ids of the label
# and of the edit.
set startup_fields {
    General.Fullname    startup_name "Full name:"    102 103
    General.MailAddress startup_addr "Mail address:" 104 105
}

proc startup_build {} {
    global startup_fields windows
    lassign [_xvt_get_client_rect startupwin] left top right bottom
    set width [expr {$right - $left}]
    set height [expr {$bottom - $top}]
    set margin 20
    set gap 10
    set label_w 110
    set label_h [ideal_height label]
    set edit_h [ideal_height edit]
    set button_h [ideal_height button]
    set x_end [expr {$width - $margin}]
    set x_edit [expr {$margin + $label_w + 5}]

    # The heading takes the top 70 pixels.
    set y 70
    set intro_h [expr {2 * $label_h}]
    _xvt_create_control WC_TEXT [list $margin $y $x_end [expr {$y + $intro_h}]] \
        "Velmar needs your name and mail address before it can send mail for you." \
        startupwin 0 startup_intro 101
    incr y [expr {$intro_h + $gap}]

    foreach {option ctl label label_id edit_id} $startup_fields {
        set label_y [expr {$y + ($edit_h - $label_h) / 2}]
        _xvt_create_control WC_TEXT [list $margin $label_y [expr {$margin + $label_w}] [expr {$label_y + $label_h}]] \
            $label startupwin 0 ${ctl}_label $label_id
        _xvt_create_control WC_EDIT [list $x_edit $y $x_end [expr {$y + $edit_h}]] \
            "" startupwin 0 $ctl $edit_id
        # What the user set in an earlier attempt, or a site default.
        if {![catch {option -session $option} value]} {
            _xvt_set_ctl_title startupwin $ctl $value
        }
        incr y [expr {$edit_h + $gap}]
    }

    set ok_top [expr {max($y, $height - $margin - $button_h)}]
    _xvt_create_control WC_PUSHBUTTON [list [expr {$x_end - 80}] $ok_top $x_end [expr {$ok_top + $button_h}]] \
        "OK" startupwin CTL_FLAG_DEFAULT startup_ok 106

    keylset windows(startup_ok) command startup_ok
    keylset windows(startup_name) entercommand {_xvt_focus startupwin startup_addr}
    keylset windows(startup_addr) entercommand startup_ok

    if {[string trim [_xvt_get_ctl_title startupwin startup_name]] eq ""} {
        _xvt_focus startupwin startup_name
    } else {
        _xvt_focus startupwin startup_addr
    }
}

# OK, or Enter in the address: store what was typed if it is complete,
# else say what is missing and leave the form as it is.
proc startup_ok {} {
    set name [string trim [_xvt_get_ctl_title startupwin startup_name]]
    set addr [string trim [_xvt_get_ctl_title startupwin startup_addr]]
    set problem ""
    if {$name eq "" && $addr eq ""} {
        set problem "Please enter your full name and your mail address."
        set field startup_name
    } elseif {$name eq ""} {
        set problem "Please enter your full name."
        set field startup_name
    } elseif {$addr eq ""} {
        set problem "Please enter your mail address."
        set field startup_addr
    } elseif {![regexp {^[^@\s]+@[^@\s]+$} $addr]} {
        set problem "\"$addr\" is not a complete mail address. Please enter it in the form name@host, for example ann@example.org."
        set field startup_addr
    }
    if {$problem ne ""} {
        note $problem
        _xvt_focus startupwin $field
        return
    }
    option -permanent General.Fullname $name
    option -permanent General.MailAddress $addr
    startup_local_folders
    doneVMRStartup
}

# A first start has no message service: the user gets local folders, with
# drafts and sent mail kept there, so that Save to Drafts and the copy of
# what was sent work before anything else is set up. What the site's
# defaults already say is left as it is.
proc startup_local_folders {} {
    if {![catch {option -session MsgService.IDList} ids] && [string trim $ids] ne ""} return
    foreach {name value} {
        MsgService.IDList 1
        MsgService.ms1.Name "Local Folders"
        MsgService.ms1.Type local
        Compose.DraftFolder "Local Folders!drafts"
        Compose.SentmailFolder "Local Folders!sent"
        Compose.SaveOutgoing 1
    } {
        if {[catch {option -session $name} old] || $old eq ""} {
            option -permanent $name $value
        }
    }
}

startup_build
