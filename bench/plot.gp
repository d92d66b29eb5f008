# Draws build/bench/plot.svg from the columns beside it: how set-up, memory and the time of one restore
# grow with the tree. Columns: directories, then one a guard in the order of `names`.
set terminal svg size 1000,380 font "sans,12" background "#ffffff"
set output "plot.svg"
set datafile missing "?"
names = "Sentrel 'raw walk and watch' 'bare rsync' inotifywait 'inotifywait loop' 'lsyncd, batching' 'watchman trigger'"
colour(i) = word("#c0392b #555555 #999999 #2980b9 #8e44ad #27ae60 #e67e22", i)
set multiplot layout 1,3
set logscale xy
set xtics ("1,000" 1000, "10,000" 10000, "100,000" 100000)
set xlabel "directories, 10 files each"
set xrange [700:140000]
set grid ytics lc rgb "#dddddd"
set key top left samplen 1.5 font ",9"
set title "until all is watched, ms"
set yrange [10:30000]
plot for [i=1:7] "ready.dat" using 1:i+1 with linespoints pt 7 ps 0.6 lw (i==1?3:1.5) lc rgb colour(i) title word(names,i)
set title "memory per directory, bytes"
set yrange [100:30000]
plot for [i=1:7] "memory.dat" using 1:i+1 with linespoints pt 7 ps 0.6 lw (i==1?3:1.5) lc rgb colour(i) title word(names,i)
set title "4 KiB back, ms (median)"
set yrange [1:300]
plot for [i=1:7] "latency.dat" using 1:i+1 with linespoints pt 7 ps 0.6 lw (i==1?3:1.5) lc rgb colour(i) title word(names,i)
unset multiplot
