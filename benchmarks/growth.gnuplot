# Plots the time of a listing and of a signature against the number of certificates on the token. The caller sets the
# variable `data` (a path) and the output file.
set terminal svg size 900,400 dynamic font "sans-serif,13" background "white"
set multiplot layout 1,2
set logscale xy
set xrange [0.8:12500]
set format x "10^{%L}"
set format y "10^{%L}"
set xlabel "certificates on the token"
set ylabel "milliseconds"
set key top left
set grid
C = "lw 5 lc rgb '#bbbbbb'"
library = "pt 7 ps 0.5 lw 1.5 lc rgb '#0060ad'"
sun = "pt 5 ps 0.5 lw 1.5 lc rgb '#d95319'"
set title "listing all certificates"
plot data using 1:2 with lines @C title "C", \
  data using 1:3 with linespoints @library title "library", data using 1:4 with linespoints @sun title "SunPKCS11"
set title "signing"
plot data using 1:5 with lines @C title "C", \
  data using 1:6 with linespoints @library title "library", data using 1:7 with linespoints @sun title "SunPKCS11"
