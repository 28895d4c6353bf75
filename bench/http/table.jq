# The figures as lines of columns.
(["hits", "server", "requests/s", "p50 us", "p99 us", "CPU us", "failed", "asked"] | @tsv),
(.hits[] | [.work, .server, (.perSecond.median | round), .p50.median, .p99.median,
  (if .cpu then .cpu.median * 10 | round / 10 else "-" end), .failed, .asked] | @tsv),
"",
"100 clients, one cold object of 64 MiB: what the store was asked for",
(.herd[] | "\(.server): \(.requests) requests, \(.bytes) bytes, \(.failed) clients failed"),
"",
"from a start with \(.starts[0].objects) objects on disk to the first that comes without the store",
(.starts[] | "\(.server): " + (if .seconds then "\(.seconds * 100 | round / 100) s, " else "none, " end) + "\(.misses) came with the store before")
