# report.awk FIGURES TEMPLATE: prints the template with its placeholders replaced by what the figures say:
#   {{segments}} {{objects}} {{counts}} {{list}} {{background}} {{growth}} {{starts}}   a table
#   {{settings}} {{about}}                                       a line each
#   {{data WORK}}                                                columns to plot, one a contender
#   {{WORK CONTENDER MEASURE}}                                   one median

BEGIN {
  FS = "\t"
  split("read readZipf readRange overwrite create createSynced delete", WORKS, " ")
  split("4096 65536 1048576 4194304", SIZES, " ")
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
  if (what == "objects") return objects()
  if (what == "starts") return beside("startUp ms speed", "10000 100000 1000000")
  if (what == "counts") return counts()
  if (what == "list") return beside("listBytes bytes ratio,listTouch ns ratio,listInsert ns ratio", "20000 1000000 10000000")
  if (what == "background") return beside("scan ms speed,walk ms speed,migration ms speed", "20000")
  if (what == "growth") return beside("grownRead us p50,grownTouch us p50,grownCreate us p50", "1000 10000 100000 1000000")
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
  for (w = 1; w in WORKS; ++w) for (s = 1; s in SIZES; ++s) for (threads = 1; threads <= 2; ++threads) {
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

# ObjectCache: from its table of descriptors over the floor's, from disk over the engine's touching read, and the
# share of a checked read that is its hash.
function objects(    text, w, s, threads, work) {
  text = sprintf("%-12s %7s thr %9s %9s %9s %7s %9s %9s %7s\n", "", "", "touching", "hot", "hot+", "hash", "cold", "cold+", "hash")
  for (w = 1; w <= 3; ++w) for (s = 1; s in SIZES; ++s) for (threads = 1; threads <= 2; ++threads) {
    work = WORKS[w] "/" SIZES[s] "/" threads
    if (!((work, "hot", "p50") in median)) continue
    text = text sprintf("%-12s %7s  %d  %9s %9s %9s %7s %9s %9s %7s\n", WORKS[w], sizeName(SIZES[s]), threads,
      number(work, "touching", "p50"), number(work, "hot", "p50"), number(work, "hot+", "p50"), share(work, "hot"),
      sprintf("%.2f", overTouching(work, "cold")), sprintf("%.2f", overTouching(work, "cold+")), share(work, "cold"))
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

function isCounted(contender) { return ("one/read", contender, "calls") in median }

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

# One line a size; "?" where there is no figure.
function plotted(work,    text, s, i, key) {
  text = "bytes diskcache hot"
  for (i = 1; i <= NARROW; ++i) text = text " " CONTENDERS[i]
  text = text "\n"
  for (s = 1; s in SIZES; ++s) {
    key = work "/" SIZES[s] "/1"
    if (!((key, "diskcache", "p50") in median)) continue
    text = text SIZES[s] " " median[key, "diskcache", "p50"] " " ((key, "hot", "p50") in median ? median[key, "hot", "p50"] : "?")
    for (i = 1; i <= NARROW; ++i)
      text = text " " ((key, CONTENDERS[i], "p50") in median ? median[key, CONTENDERS[i], "p50"] : "?")
    text = text "\n"
  }
  return text
}
