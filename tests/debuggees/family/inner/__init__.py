__all__ = ["shared"]


def shared():
    return "shared"
