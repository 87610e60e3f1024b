# Draws the plot `plot_name` of the systems `names`, called `titles`, from the files that report.py
# writes: each has the points of a curve, with the smallest and the largest run.
set terminal svg size 980,540 dynamic background rgb "white" font "Helvetica,Arial,sans-serif,13"
set border 3 linecolor rgb "#444444"
set tics nomirror textcolor rgb "#1a1a1a"
set grid linecolor rgb "#dddddd"
set style data yerrorlines
set pointsize 0.5
set key below font ",11"
set xlabel offset 0,0.6
colors = "#888888 #a84a62 #3c7d2a #555555 #7a5aa6 #2f6fb0 #c98a1b #4fa3a5 #8a6d4b #bbbbbb"
shown(curve) = system(sprintf( \
  "for name in %s; do test -s \"$name %s\" && echo $name; done; true", names, curve))
place(name) = int(system(sprintf( \
  "echo %s | tr ' ' '\\n' | grep -nx %s | cut -d: -f1", names, name)))
title_of(name) = word(titles, place(name))
color_of(name) = word(colors, place(name))

if (plot_name eq "wake-ups") {
  set ylabel "wake-ups a minute at rest"
  set logscale y
  set yrange [0.5:*]
  set boxwidth 0.6
  set style fill solid 0.8
  # None at all has a box, too.
  height(count) = count > 0.6 ? count : 0.6
  plot "wake-ups" using 0:(height($2)):xtic(1) with boxes linecolor rgb "#3c7d2a" notitle, \
       "wake-ups" using 0:(height($2)):(sprintf("%.0f", $2)) with labels offset 0,0.7 notitle
  exit
}

set multiplot layout 1,2
if (plot_name eq "latency") {
  set logscale x
  set xlabel "microseconds"
  set ylabel "messages that took at most so long, %"
  do for [way in "up down"] {
    set title way
    curve = "latency ".way
    plot for [name in shown(curve)] name." ".curve using 2:1 with lines linewidth 1.5 \
      linecolor rgb color_of(name) title title_of(name)
  }
} else {
  set logscale xy
  set format "10^{%L}"
  measure = plot_name eq "throughput" ? "rate " : "backlog "
  set xlabel plot_name eq "throughput" ? "bytes of a message" : "messages of 200 bytes at once"
  set ylabel plot_name eq "throughput" ? "messages a second" : "processor's µs for a message"
  do for [way in "up down"] {
    set title way
    curve = measure.way
    plot for [name in shown(curve)] name." ".curve using 1:2:3:4 \
      linecolor rgb color_of(name) title title_of(name)
  }
}
unset multiplot
