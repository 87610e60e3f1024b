# The waits over time while no attempt succeeds, with initial_connection_delay=2 and
# max_connection_delay=60. Each wait is drawn as long as it is on average.
set terminal svg size 820,400 dynamic background rgb "white" font "Helvetica,Arial,sans-serif,13"
set xlabel "time since the start, seconds" textcolor rgb "#1a1a1a"
set ylabel "length of the wait, seconds" textcolor rgb "#1a1a1a"
set border 3 linecolor rgb "#444444"
set tics nomirror textcolor rgb "#1a1a1a"
set grid ytics linecolor rgb "#dddddd"
set key top left Left reverse textcolor rgb "#1a1a1a"
set xrange [0:305]
set yrange [0:128]
set xtics 30
set ytics 0,15,90
set style fill solid 1.0 border linecolor rgb "#3c7d2a"

initial = 2
largest = 60
smaller(a, b) = a < b ? a : b
delay(n) = n == 1 ? initial : smaller(2 * delay(n - 1), largest)
low(n) = floor(delay(n) / 2)
high(n) = low(n) + delay(n)
mean(n) = (low(n) + high(n) - 1) / 2.0
begin(n) = n == 1 ? 0 : begin(n - 1) + mean(n - 1)
middle(n) = begin(n) + mean(n) / 2

waits = 9
set samples waits
set table $waits
plot [n=1:waits] '+' using (int($1 + 0.5)):(int($1 + 0.5)) with table
unset table

plot $waits using (middle($1)):(mean($1)):(begin($1)):(begin($1) + mean($1)):(low($1)):(high($1)) \
       with boxxyerror fillcolor rgb "#dcecd5" linecolor rgb "#3c7d2a" \
       title "window that the wait is drawn from", \
     $waits using (begin($1) + mean($1)):(mean($1)) with impulses linewidth 1.5 \
       linecolor rgb "#a84a62" title "an attempt, after the average wait", \
     $waits using (middle($1)):($1 > 3 ? high($1) + 2 : NaN):(sprintf("%d to %d s", low($1), high($1) - 1)) \
       with labels font ",11" textcolor rgb "#1a1a1a" offset 0,0.4 notitle
