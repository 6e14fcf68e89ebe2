option General.Fullname "Ann Example"
option General.MailAddress ann@example.org
