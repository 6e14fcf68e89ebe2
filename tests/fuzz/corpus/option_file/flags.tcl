option -default -readonly Site.x 1
option -session Sess "v"
option Name#-with#-blank "a \"quoted\" \$value \[x\]"
