# Draws what one workload has shown, a panel for each metric: the median as a bar, smallest and
# largest value as a line over it.
# Usage: gnuplot -c plot.gp DATA PICTURE
data = ARG1
stats data using 2 nooutput
panels = STATS_blocks
array rows[panels]
total = 0
do for [i = 1 : panels] {
    stats data index i - 1 using 3 nooutput
    rows[i] = STATS_records
    total = total + rows[i] + 3
}

set terminal svg size 900, 24 * total + 20 dynamic background "white" font "sans-serif,13"
set output ARG2
set multiplot
set style fill solid 0.85 noborder
set grid xtics lc rgb "#dddddd"
set border 3
set tics nomirror scale 0.5
unset key
set lmargin at screen 0.36
set rmargin at screen 0.97
colour(kind) = kind == 0 ? 0x2a6f97 : kind == 1 ? 0x6c757d : 0xc97b4a

top = 1.0
do for [i = 1 : panels] {
    height = (rows[i] + 3.0) / total
    set tmargin at screen top - 1.4 * height / (rows[i] + 3)
    set bmargin at screen top - height + 1.1 * height / (rows[i] + 3)
    top = top - height
    set title system(sprintf("awk -v n=%d 'BEGIN { RS = \"\\n\\n\\n\" } NR == n' '%s' | head -n 1 | tr -d '\"'", i, data)) offset 0, -0.6
    set xrange [0 : *]
    set yrange [rows[i] - 0.4 : -0.6]
    plot data index i - 1 using 3:0:(0):3:($0 - 0.36):($0 + 0.36):(colour($2)):ytic(1) every ::1 \
             with boxxyerror lc rgb variable, \
         data index i - 1 using 3:0:4:5 every ::1 with xerrorbars lc rgb "#222222" pt 0
}
unset multiplot
