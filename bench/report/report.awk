# report.awk FIGURES TEMPLATE: prints the template with its placeholders replaced by what the figures say:
#   {{segments}} {{operations}} {{tails}} {{peers}} {{xfs}} {{objects}} {{counts}} {{list}} {{background}} {{growth}} {{starts}}   a table
#   {{settings}} {{about}}                                       a line each
#   {{data PICTURE}}                                             columns to plot: read, create, threads, space, memory
#   {{WORK CONTENDER MEASURE}}                                   one median

BEGIN {
  FS = "\t"
  split("read readZipf readRange readCold overwrite create createSynced delete", WORKS, " ")
  split("4096 65536 1048576 4194304", SIZES, " ")
  PLOTTED = "diskcache memory hot sqlite3 sqlite3+ lmdb rocksdb rocksdb+ leveldb"
  STORED = "diskcache sqlite3 lmdb rocksdb leveldb"
  split("1 2 4 8", THREADS, " ")
  NARROW = split("touching random counters log sqlite3 sqlite3+ lmdb rocksdb rocksdb+ leveldb", CONTENDERS, " ")
}

FNR == 1 { ++file }
file == 1 && $1 == "setting" { settings = settings sprintf("%-9s %s\n", $2, $3); next }
file == 1 && $1 == "about" { about = about $3 "\n"; next }
file == 1 { median[$1, $2, $3] = $4; least[$1, $2, $3] = $5; most[$1, $2, $3] = $6; next }

/^{{.*}}$/ { printf "%s", block(substr($0, 3, length($0) - 4)); next }
{
  while (match($0, /{{[^}]*}}/)) {
    split(substr($0, RSTART + 2, RLENGTH - 4), part, " ")
    $0 = substr($0, 1, RSTART - 1) number(part[1], part[2], part[3]) substr($0, RSTART + RLENGTH)
  }
  print
}

function block(what) {
  if (what == "settings") return settings
  if (what == "about") return about
  if (what == "segments") return segments()
  if (what == "operations") return rows("floor, µs|diskcache|touching|random|counters|log", "floor diskcache touching random counters log")
  if (what == "peers") return rows("sqlite3|sqlite3+|lmdb|rocksdb|rocksdb+|leveldb", "sqlite3 sqlite3+ lmdb rocksdb rocksdb+ leveldb")
  if (what == "tails") return tails()
  if (what == "xfs") return xfs()
  if (what == "objects") return objects()
  if (what == "starts") return beside("startUp ms speed", "10000 100000 1000000")
  if (what == "counts") return counts()
  if (what == "space") return space()
  if (what == "list") return beside("listBytes bytes ratio,listTouch ns ratio,listInsert ns ratio", "20000 1000000 10000000")
  if (what == "background") return beside("scan ms speed,walk ms speed,migration ms speed", "20000")
  if (what == "growth") return beside("grownRead us p50,grownTouch us p50,grownCreate us p50,grownStart ms ratio", "1000 10000 100000 1000000")
  if (what ~ /^data /) return plotted(substr(what, 6))
  print "unknown placeholder: " what >"/dev/stderr"
  exit 1
}

# With as many digits as count, "-" for what was not measured.
function number(work, contender, measure,    value) {
  if (!((work, contender, measure) in median)) return "-"
  value = median[work, contender, measure]
  return sprintf(value < 0.1 ? "%.3f" : value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value)
}

function withRange(work, contender, measure) {
  if (!((work, contender, measure) in median)) return "-"
  return number(work, contender, measure) \
    sprintf(" (%.2f-%.2f)", least[work, contender, measure], most[work, contender, measure])
}

function sizeName(bytes) { return bytes < 1048576 ? bytes / 1024 " KiB" : bytes / 1048576 " MiB" }

function segments(    text, w, s, threads, work, measure, m, i) {
  text = sprintf("%-12s %7s thr      %8s %18s %18s", "", "", "floor/us", "again", "diskcache")
  for (i = 1; i <= NARROW; ++i) text = text sprintf(" %8s", CONTENDERS[i])
  text = text "\n"
  for (w = 1; w in WORKS; ++w) for (s = 1; s in SIZES; ++s) for (threads = 1; threads <= 8; ++threads) {
    work = WORKS[w] "/" SIZES[s] "/" threads
    if (!((work, "floor", "wall") in median)) continue
    for (m = 1; m <= 3; ++m) {
      measure = m == 1 ? "wall" : m == 2 ? "p50" : "cpu"
      text = text (m == 1 ? sprintf("%-12s %7s  %d  ", WORKS[w], sizeName(SIZES[s]), threads) : sprintf("%25s", "")) \
        sprintf("%-4s %8s %18s %18s", measure, number(work, "floor", measure), withRange(work, "again", measure),
          withRange(work, "diskcache", measure))
      for (i = 1; i <= NARROW; ++i) text = text sprintf(" %8s", number(work, CONTENDERS[i], measure))
      text = text "\n"
    }
  }
  return text
}

# Markdown: p50 of each operation over the floor's, with one thread and with two.
function rows(titles, names,    text, rule, name, w, s, threads, work, i) {
  rule = "| --- |"
  for (i = split(names, name, " "); i > 0; --i) rule = rule " ---: |"
  gsub(/\|/, " | ", titles)
  text = "| | " titles " |\n" rule "\n"
  for (w = 1; w in WORKS; ++w) for (s = 1; s in SIZES; ++s) for (threads = 1; threads in THREADS; ++threads) {
    work = WORKS[w] "/" SIZES[s] "/" THREADS[threads]
    if (!((work, name[1], "p50") in median)) continue
    text = text sprintf("| %s %s%s |", WORKS[w], sizeName(SIZES[s]), threads > 1 ? ", " THREADS[threads] " threads" : "")
    for (i = 1; i in name; ++i) text = text " " number(work, name[i], "p50") " |"
    text = text "\n"
  }
  return text
}

# Markdown: the longest of single operations with one thread, the floor's in microseconds, the cache's over it.
function tails(    text, w, s, m, work, measure) {
  text = "| | p99: floor, µs | diskcache | touching | p99.9: floor, µs | diskcache | touching |\n"
  text = text "| --- | ---: | ---: | ---: | ---: | ---: | ---: |\n"
  for (w = 1; w in WORKS; ++w) for (s = 1; s <= 2; ++s) {
    work = WORKS[w] "/" SIZES[s] "/1"
    if (!((work, "floor", "p99") in median)) continue
    text = text sprintf("| %s %s |", WORKS[w], sizeName(SIZES[s]))
    for (m = 1; m <= 2; ++m) {
      measure = m == 1 ? "p99" : "p999"
      text = text " " number(work, "floor", measure) " | " number(work, "diskcache", measure) " | " \
        number(work, "touching", measure) " |"
    }
    text = text "\n"
  }
  return text
}

# Markdown: p50 on xfs beside that on ext4.
function xfs(    text, w, s, work) {
  text = "| | ext4: floor, µs | diskcache | touching | xfs: floor, µs | diskcache | touching |\n"
  text = text "| --- | ---: | ---: | ---: | ---: | ---: | ---: |\n"
  for (w = 1; w in WORKS; ++w) for (s = 1; s in SIZES; ++s) {
    work = WORKS[w] "/" SIZES[s] "/1"
    if (!(("xfs/" work, "floor", "p50") in median)) continue
    text = text sprintf("| %s %s | %s | %s | %s | %s | %s | %s |\n", WORKS[w], sizeName(SIZES[s]),
      number(work, "floor", "p50"), number(work, "diskcache", "p50"), number(work, "touching", "p50"),
      number("xfs/" work, "floor", "p50"), number("xfs/" work, "diskcache", "p50"), number("xfs/" work, "touching", "p50"))
  }
  return text
}

# ObjectCache: from memory and from its table of descriptors over the floor's, from disk over the engine's touching read, and the
# share of a checked read that is its hash.
function objects(    text, w, s, threads, work) {
  text = sprintf("%-12s %7s thr %9s %9s %9s %9s %7s %9s %9s %7s\n", "", "", "touching", "memory", "hot", "hot+", "hash", "cold", "cold+", "hash")
  for (w = 1; w <= 3; ++w) for (s = 1; s in SIZES; ++s) for (threads = 1; threads <= 2; ++threads) {
    work = WORKS[w] "/" SIZES[s] "/" threads
    if (!((work, "hot", "p50") in median)) continue
    text = text sprintf("%-12s %7s  %d  %9s %9s %9s %9s %7s %9s %9s %7s\n", WORKS[w], sizeName(SIZES[s]), threads,
      number(work, "touching", "p50"), number(work, "memory", "p50"), number(work, "hot", "p50"), number(work, "hot+", "p50"), share(work, "hot"),
      sprintf("%.2f", overTouching(work, "cold")), sprintf("%.2f", overTouching(work, "cold+")), share(work, "cold"))
  }
  return text
}

# Allocated bytes a segment.
function space(    text, size, s, i, name, work) {
  split("512 4096 16384 65536", size, " ")
  text = "| segments of | files | directories | sqlite3 | lmdb | rocksdb | leveldb |\n| --- | ---: | ---: | ---: | ---: | ---: | ---: |\n"
  split("sqlite3 lmdb rocksdb leveldb", name, " ")
  for (s = 1; s in size; ++s) {
    work = "space/" size[s]
    if (!((work, "diskcache", "files") in median)) continue
    text = text sprintf("| %s B | %s | %s |", size[s], number(work, "diskcache", "files"), number(work, "diskcache", "directories"))
    for (i = 1; i in name; ++i) text = text " " number(work, name[i], "files") " |"
    text = text "\n"
  }
  return text
}

function overTouching(work, contender) { return median[work, contender, "p50"] / median[work, "touching", "p50"] }

function share(work, contender) {
  return sprintf("%.0f %%", 100 * (1 - median[work, contender, "p50"] / median[work, contender "+", "p50"]))
}

function counts(    text, operations, o, kinds, k, i, contender) {
  split("create read overwrite delete", operations, " ")
  split("calls instructions heap", kinds, " ")
  text = sprintf("%-24s %8s %9s", "", "floor", "diskcache")
  for (i = 1; i <= NARROW; ++i) if (isCounted(CONTENDERS[i])) text = text sprintf(" %8s", CONTENDERS[i])
  text = text "\n"
  for (k = 1; k in kinds; ++k) for (o = 1; o in operations; ++o) {
    if (!(("one/" operations[o], "floor", kinds[k]) in median)) continue
    text = text sprintf("%-13s %-10s %8s %9s", kinds[k], operations[o], whole(operations[o], "floor", kinds[k]),
      whole(operations[o], "diskcache", kinds[k]))
    for (i = 1; i <= NARROW; ++i)
      if (isCounted(CONTENDERS[i])) text = text sprintf(" %8s", whole(operations[o], CONTENDERS[i], kinds[k]))
    text = text "\n"
  }
  return text
}

# What a tuned peer calls is in the full data.
function isCounted(contender) { return contender !~ /[+]$/ && ("one/read", contender, "calls") in median }

function whole(operation, contender, kind) {
  if (!(("one/" operation, contender, kind) in median)) return "-"
  return sprintf("%d", median["one/" operation, contender, kind])
}

# Tables of one contender beside the floor: works as "NAME UNIT RATIO", at several sizes. What is said of a ratio
# against that at the first size only shows where there is more than one.
function beside(works, sizes,    text, list, w, size, s, part, work) {
  split(works, list, ",")
  split(sizes, size, " ")
  text = sprintf("%-22s %12s %12s %20s %8s\n", "", "by hand", "diskcache", "ratio", "against")
  for (w = 1; w in list; ++w) for (s = 1; s in size; ++s) {
    split(list[w], part, " ")
    work = part[1] "/" size[s]
    if (!((work, "diskcache", part[3]) in median)) continue
    text = text sprintf("%-22s %9s %-2s %9s %-2s %20s %8s\n", work, number(work, "floor", part[2]), unit(part[2]),
      number(work, "diskcache", part[2]), unit(part[2]), withRange(work, "diskcache", part[3]),
      s > 1 ? sprintf("%.2f", median[work, "diskcache", part[3]] / median[part[1] "/" size[1], "diskcache", part[3]]) : "")
  }
  return text
}

function unit(name) { return name == "bytes" ? "B" : name }

# Columns to plot, one a contender; "?" where there is no figure. Behind the last line's values stand the heights of the
# curves' names there, apart enough to be read.
function plotted(what,    part) {
  split(what, part, " ")
  if (part[1] == "threads") return columns("threads", "1 2 4 8", PLOTTED, 1)
  if (part[1] == "space") return columns("space", "512 4096 16384 65536", STORED, 0)
  if (part[1] == "memory") return sprintf("\"list and map\" %s\ndiskcache %s\n", bytesOfEntry("floor"), bytesOfEntry("diskcache"))
  return columns(part[1], "4096 65536 1048576 4194304", PLOTTED, 0)
}

function bytesOfEntry(contender) { return number("listBytes/1000000", contender, "bytes") }

function columns(what, places, names, isLinear,    text, place, name, count, p, i, last, top) {
  count = split(names, name, " ")
  split(places, place, " ")
  text = "x"
  for (i = 1; i <= count; ++i) text = text " " (name[i] == "memory" ? "ObjectCache" : name[i] == "hot" ? "unchecked" : name[i])
  for (p = 1; p in place; ++p) {
    if (plottedValue(what, place[p], name[1]) == "?") continue
    text = text "\n" place[p]
    for (i = 1; i <= count; ++i) {
      text = text " " (last[i] = plottedValue(what, place[p], name[i]))
      if (last[i] != "?" && last[i] + 0 > top) top = last[i] + 0
    }
  }
  return text heights(last, count, isLinear ? top : 0) "\n"
}

function plottedValue(what, place, name,    key) {
  if (what == "threads") {
    key = "read/65536/" place
    if (!((key, name, "wall") in median)) return "?"
    return 1000 / (median[key, "floor", "wall"] * (name == "floor" ? 1 : median[key, name, "wall"]))
  }
  if (what == "space") {
    key = "space/" place
    if (!((key, name, "files") in median)) return "?"
    return (median[key, name, "files"] + median[key, name, "directories"]) / place
  }
  key = what "/" place "/1"
  return (key, name, "p50") in median ? median[key, name, "p50"] : "?"
}

# Names that lie closer than a line is high push each other away, half the way each. On a linear axis `top` is its end.
function heights(last, count, top,    text, i, k, n, order, at, gap, missing, isClose) {
  for (i = 1; i <= count; ++i) {
    if (last[i] == "?") continue
    at[i] = top ? last[i] / top : log(last[i])
    for (k = ++n; k > 1 && at[order[k - 1]] > at[i]; --k) order[k] = order[k - 1]
    order[k] = i
  }
  gap = top ? 0.055 : 0.34
  do {
    isClose = 0
    for (k = 2; k <= n; ++k) {
      missing = gap - (at[order[k]] - at[order[k - 1]])
      if (missing < 0.01) continue
      isClose = 1
      at[order[k]] += missing / 2
      at[order[k - 1]] -= missing / 2
    }
  } while (isClose)
  for (i = 1; i <= count; ++i) text = text " " (i in at ? (top ? at[i] * top : exp(at[i])) : "?")
  return text
}
