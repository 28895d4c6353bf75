# The pictures of docs/performance.md. Given: what (latency, threads, memory or space), data, target, and for latency
# createData. Readable without colours: points and dashes differ, and each curve is named at its end.
set terminal svg size 800,(what eq "latency" ? 860 : what eq "memory" ? 260 : 460) font "sans-serif,14" background "white"
set output target
set datafile missing "?"
set grid ytics linecolor "gray80"
set border 3
set tics nomirror
unset key
set rmargin 14

# A curve for each column but the first, with its name at the end, at the height that the data's last line gives behind
# the values.
curves(file) = system("head -n 1 " . file)
plotCurves = 'names = curves(file); columns = words(names); last = int(system("grep -c . " . file)) - 2; \
  plot one + 0 * x linecolor "gray50" dashtype 3, \
    for [i = 2:columns] file skip 1 using 1:i with linespoints linecolor "black" pointtype i dashtype i \
      linewidth (strstrt("diskcache ObjectCache unchecked", word(names, i)) ? 2.5 : 1), \
    for [i = 2:columns] file skip 1 + last using 1:(column(i + columns - 1)):(word(names, i)) with labels left offset 1,0'

sizes = '("512 B" 512, "4 KiB" 4096, "16 KiB" 16384, "64 KiB" 65536, "1 MiB" 1048576, "4 MiB" 4194304)'
one = NaN
if (what eq "latency") {
  set logscale xy
  eval("set xtics " . sizes)
  set xrange [3400:4800000]
  set yrange [0.1:60]
  set ylabel "median time over the floor's"
  one = 1
  set multiplot layout 2,1
  set title "Reading a segment, warm: its calls by hand are 1; less is better"
  file = data
  eval(plotCurves)
  set title "Creating a segment"
  file = createData
  eval(plotCurves)
  unset multiplot
}
if (what eq "threads") {
  set logscale x
  set xtics (1, 2, 4, 8)
  set xrange [0.9:8.5]
  set yrange [0:*]
  set title "Reads of 64 KiB, warm, by threads on two processors; more is better"
  set xlabel "threads"
  set ylabel "thousand reads a second"
  file = data
  eval(plotCurves)
}
if (what eq "space") {
  set logscale xy
  eval("set xtics " . sizes)
  set xrange [450:75000]
  set title "Space on disk, files and directories, over the bytes stored; less is better"
  set xlabel "segment size"
  set ylabel "allocated over stored"
  one = 1
  file = data
  eval(plotCurves)
}
if (what eq "memory") {
  set style fill pattern border linecolor "black"
  set boxwidth 0.6
  set xrange [0:*]
  unset grid
  set grid xtics linecolor "gray80"
  set title "Memory of the recency list, bytes an entry (identifiers of 44 characters); less is better"
  set lmargin 26
  plot data using ($2 / 2):0:($2 / 2):(0.3):yticlabels(1) with boxxyerror linecolor "black" fillstyle solid 0.4, \
    data using 2:0:2 with labels left offset 1,0
}
