# Procedures that script-built windows call on their events. A window's
# script may redefine them.
array set windows {}

proc winmapped {name} {}
proc windestroyed {name} {}
proc focus_next_kid {name ptr} {}
proc focus_prev_kid {name ptr} {}
proc activate_control {name id} {}
