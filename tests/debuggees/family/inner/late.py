kValue = [number for number in range(3)]
