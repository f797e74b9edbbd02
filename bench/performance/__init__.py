"""What bench/report.py writes its document with, from the samples up to the page:

    folders -> samples -> tables -> targets, ranks -> benchmark -> one module per benchmark
    -> benchmarks -> comparison -> document

A module uses the ones before it in this line, words.py and machine.py; none uses one after it.
"""
