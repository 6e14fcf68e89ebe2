catch {error boom} m
option M $m
return
option After 1
