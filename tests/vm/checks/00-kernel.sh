# The guest's kernel: the CAN modules are loaded, vcan0 is a CAN interface that is up, and it has
# no queue discipline (vcan queues nothing: txqueuelen changes nothing there).
. /lib/qbvm/qbvm.sh

problems=
for m in can can_raw vcan can_dev sch_tbf; do
    grep -q "^$m " /proc/modules || problems="$problems module $m not loaded;"
done
[ "$(cat /sys/class/net/vcan0/type)" = 280 ] || problems="$problems vcan0 is not ARPHRD_CAN;"
grep -q up /sys/class/net/vcan0/operstate ||
    [ $(( $(cat /sys/class/net/vcan0/flags) & 1 )) = 1 ] || problems="$problems vcan0 is not up;"
qdisc=$(tc qdisc show dev vcan0)
case $qdisc in *noqueue*) ;; *) problems="$problems vcan0 has qdisc '$qdisc';" ;; esac
if [ -z "$problems" ]; then
    pass "$(uname -r): can, can_raw, vcan, can_dev, sch_tbf loaded; vcan0 up, qdisc noqueue"
else
    fail "$problems"
fi
