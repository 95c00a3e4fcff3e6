# Cost of an operation over the number of threads. Variables: data, output, heading, isLogarithmic; series in columns from
# the second.
set terminal svg size 900,560 font "sans-serif,14" background "white"
set output output
set title heading
set xlabel "threads that share one pool"
set ylabel "wall nanoseconds per operation of any thread (median)"
set xtics 1
if (isLogarithmic) { set logscale y } else { set yrange [0:*] }
set grid xtics ytics lc rgb "#dddddd"
set key outside right top noenhanced
set datafile missing "-"
set datafile separator "\t"
stats data skip 1 nooutput
set linetype 9 lc rgb "#808080" # the default is the first colour again
plot for [column = 2:STATS_columns] data using 1:column with linespoints lw (column == 2 ? 5 : 2) title columnheader(column)
