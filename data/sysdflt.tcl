# Site defaults: the options every user starts with. A site locks an option
# with: option -default -readonly NAME VALUE
option -default General.ExitClean Prompt
option -default General.ActionDelete Next
option -default Desktop.SaveDesktopOnExit TRUE
option -default Timer.Interval 7
option -default Folders.EnableLocal TRUE
option -default Folders.EnableRemote TRUE
option -default Send.Background FALSE
option -default Compose.QueueOutgoing FALSE
option -default Compose.AttachmentWords {attach attached attaching attachment attachments enclosed}
option -default Directory.CACertFile {}
