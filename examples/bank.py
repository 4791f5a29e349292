"""Accounts and transfers: classes, exceptions, properties, and an error at the end.

  ./tdbg examples/bank.py

`continue` runs into the uncaught exception: look around with `where`, `up` and `p source`.
"""
from __future__ import print_function


class BankError(Exception):
    pass


class NotEnoughMoney(BankError):
    def __init__(self, account, missing):
        BankError.__init__(self, "{} lacks {}".format(account.owner, missing))
        self.missing = missing


class Account(object):
    def __init__(self, owner, balance=0):
        self.owner = owner
        self._balance = balance
        self.history = []

    def __repr__(self):
        return "<Account of {}: {}>".format(self.owner, self.balance)

    @property
    def balance(self):
        return self._balance

    def deposit(self, amount):
        if amount <= 0:
            raise ValueError("a deposit must be positive, not {}".format(amount))
        self._balance += amount
        self.history.append(("in", amount))

    def withdraw(self, amount):
        if amount > self._balance:
            raise NotEnoughMoney(self, amount - self._balance)
        self._balance -= amount
        self.history.append(("out", amount))


class Savings(Account):
    rate = 2

    def add_interest(self):
        self.deposit(self.balance * self.rate // 100)


def transfer(source, target, amount):
    """Move money; on failure both accounts are as before."""
    source.withdraw(amount)
    try:
        target.deposit(amount)
    except ValueError:
        source.history.pop()
        source._balance += amount
        raise


def main():
    ann = Account("Ann", 100)
    bob = Savings("Bob", 500)
    bob.add_interest()
    transfer(bob, ann, 60)
    try:
        transfer(ann, bob, 1000)
    except NotEnoughMoney as error:
        print("refused:", error)
    print(ann, bob)
    transfer(ann, bob, -5)


if __name__ == "__main__":
    main()
