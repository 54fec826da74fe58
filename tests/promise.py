"""What a test in Python promises, beside its assertions: script/check-promises writes docs/promises from these calls.

They mean what PROMISES and PROMISE of tests/unit/support/promise.h mean, and their arguments are string literals too.
"""


def promises(page: str, section: str = "") -> None:
    """Names the page, and the heading in it, of what follows: in the file, or when called in a test, in that test."""


def promise(when: str, then: str) -> None:
    """First in a test, as often as it promises something: when it happens, and what happens then."""
