# The demo user's options.
option General.Fullname "Demo User"
option General.MailAddress demo@example.org
option MsgService.IDList 1
option MsgService.ms1.Name "Local Folders"
option MsgService.ms1.Type local
option Compose.DraftFolder "Local Folders!drafts"
option Compose.SentmailFolder "Local Folders!sent"
option Compose.SaveOutgoing 1
