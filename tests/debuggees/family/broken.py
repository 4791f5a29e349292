kBefore = 1
kBroken = kBefore / 0
