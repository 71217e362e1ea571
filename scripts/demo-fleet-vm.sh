# shellcheck shell=bash
# The part of demo-fleet that runs in each VM, where the repository is /mnt. Source this file there.

TEXTFILES=/var/lib/prometheus/node-exporter

write_config() {
    cat > /etc/config/halvo.conf << 'CONFIG'
global version 1
global res_monit_interval 2
global wd_tick_interval 1
global wd_timeout 8
global vm_failover ENABLE
process name worker
worker process_type NORMAL
worker start_cmd "/tmp/worker run"
worker action PROC_RESTART
worker recur_fail_interval 60
worker recur_fail_restart_count 5
process name nat-table
nat-table process_type NORMAL
nat-table start_cmd "/tmp/nat-table run"
nat-table action NOP
CONFIG
}

# The kernel's view of the simulated device.
show_device() {
    mount -t tmpfs tmpfs /sys/class
    mkdir -p /sys/class/watchdog/watchdog0
    echo 8 > /sys/class/watchdog/watchdog0/timeout
    echo 0 > /sys/class/watchdog/watchdog0/bootstatus
}

has_address() {
    ip -br address show up | grep -q "$NETWORK\.1$1/"
}

start_vm_programs() {
    local name number=$1 peer=$2
    for name in worker nat-table lunet; do
        cp /mnt/build/tools/probe "/tmp/$name"
    done
    echo "eth8_0 $NETWORK.1$peer $NETWORK.1$number" > /var/heartbeat_info
    /tmp/lunet daemonize < /dev/null > /dev/null 2>&1
    /mnt/build/tools/halvo_host > /tmp/host.log &
    wait_for 10 grep -q 'ready at' /tmp/host.log
    LD_PRELOAD=/mnt/build/tools/libhost_preload.so /mnt/build/halvo < /dev/null > /dev/null 2>&1 &
    mkdir -p "$TEXTFILES"
    prometheus-node-exporter --collector.disable-defaults --collector.textfile --collector.time \
        --collector.textfile.directory="$TEXTFILES" --web.listen-address="$NETWORK.1$number:9100" 2> /tmp/exporter.log &
    if [ "$number" = 2 ]; then
        /mnt/build/peer/halvo-peer --listen "$NETWORK.12" --from "$NETWORK.13" --textfile "$TEXTFILES/halvo-peer.prom" &
    fi
}

# The exit status is the verdict, which is in the metrics too. The package's timer asks every 15 seconds.
main_vm() {
    local number=$1 status
    wait_for 10 has_address "$number"
    write_config
    show_device
    start_vm_programs "$number" $((5 - number))
    while sleep 1; do
        status=0
        /mnt/build/halvo-status --prometheus --output "$TEXTFILES/halvo.prom" || status=$?
        ((status <= 2)) || fail "halvo-status ended with status $status"
    done
}
