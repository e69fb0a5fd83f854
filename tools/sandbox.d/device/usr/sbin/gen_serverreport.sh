#!/bin/sh
# The device's server report, shortened. Runs without an environment: absolute paths and built-ins only.

section() {
    printf '\n----- %s -----\n' "$1"
}

print_file() {
    while IFS= read -r line; do
        printf '%s\n' "$line"
    done < "$1"
}

echo "Server report"
echo "Product: network video device (stand-in)"
echo "Firmware: 0.1-development"
echo "Serial number: 000000000000"
section "Kernel"
print_file /proc/version
section "Uptime"
print_file /proc/uptime
section "Load"
print_file /proc/loadavg
section "Memory"
print_file /proc/meminfo
section "Mounts"
print_file /proc/mounts
section "Services"
echo "streamd: running"
echo "recorderd: running"
echo "eventd: running"
echo "controld: running"
section "End of report"
