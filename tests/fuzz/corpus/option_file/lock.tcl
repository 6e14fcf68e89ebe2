option Site.Lock no
option -default -readonly Site.Lock no
