# The demo user's options.
option General.Fullname "Demo User"
option General.MailAddress demo@example.org
