#!/usr/bin/env python3
"""Writes ticks.dat, a made-up minute of trades as fixed-width text lines.

Usage: tests/data/make_ticks.py > tests/data/ticks.dat
The same bytes every time: the random numbers start from a fixed seed.
"""
import random
import sys


def main():
    source = random.Random(20240102)
    price = {"ALPHA": 1050, "BRAVO": 2310, "CARGO": 785, "DELTA": 4400}
    microseconds = 34_200_000_000  # 09:30:00
    for number in range(1, 1281):
        symbol = source.choice(sorted(price))
        price[symbol] += source.choice((-1, 0, 0, 1))
        microseconds += source.randrange(100, 90_000)
        seconds, fraction = divmod(microseconds, 1_000_000)
        sys.stdout.write(
            f"{seconds // 3600:02}:{seconds // 60 % 60:02}:{seconds % 60:02}.{fraction:06} "
            f"{number:05} {symbol} {price[symbol] / 100:6.2f} "
            f"{source.randrange(1, 50) * 100:4}\n"
        )


main()
