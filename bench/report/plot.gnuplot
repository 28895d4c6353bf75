# Latency over the floor's by segment size: reads above creates. Given: readData, createData, target.
set terminal svg size 800,820 font "sans-serif,13" background "white"
set output target
set datafile missing "?" columnheaders
set logscale xy
set xtics ("4 KiB" 4096, "64 KiB" 65536, "1 MiB" 1048576, "4 MiB" 4194304)
set xrange [3000:6000000]
set ylabel "median time over the floor's"
set grid ytics
set key outside right
set multiplot layout 2,1
do for [work in "read create"] {
  data = work eq "read" ? readData : createData
  set title work
  plot 1 notitle linecolor "black" dashtype 2, \
    for [name in "diskcache hot sqlite3 sqlite3+ lmdb rocksdb rocksdb+ leveldb"] \
      data using 1:(column(name)) with linespoints linewidth (name eq "diskcache" || name eq "hot" ? 3 : 1) \
        title (name eq "hot" ? "ObjectCache" : name)
}
unset multiplot
