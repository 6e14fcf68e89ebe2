option Good 1
broken [
option Never 2
