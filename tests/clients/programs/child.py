import sys

number = int(sys.argv[1])  #@ child
sys.exit(number)
