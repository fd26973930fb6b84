#!/bin/bash
# Static routes as a shell loop: redis-cli's subscription read line by line, the whole file at each change.
set -u

dal=/run/shells.sock
file=/tmp/shl_static.conf
pattern='/op/staticroute/*'

declare -A routes  # by key: "NETWORK metric METRIC|NEXTHOP"

dal() { redis-cli -s $dal "$@"; }

prefix_length() {  # MASK; the result is in REPLY, as a subshell would cost more than all of it
    local octet bits
    REPLY=0
    for octet in ${1//./ }; do
        for ((bits = octet; bits > 0; bits = bits << 1 & 255)); do REPLY=$((REPLY + 1)); done
    done
}

put() {  # KEY METRIC
    local dest mask kind name hop fields=${1#*\{}
    IFS=: read -r dest mask kind name <<<"${fields%\}}"
    case $kind in
    2) hop="\"$name\"" ;;
    3) hop="\"cluster_$name\"" ;;
    4) hop="\"__pppoe__vlan${name/-/_}\"" ;;
    *) hop=$name ;;
    esac
    prefix_length "$mask"
    [[ ${2:-0} != 0 ]] && routes[$1]="$dest/$REPLY metric $2|$hop" || routes[$1]="$dest/$REPLY metric 1|$hop"
}

write_file() {
    local -A hops=()
    local route head indent
    for route in "${routes[@]}"; do
        head=${route%%|*}
        hops[$head]+="${hops[$head]:+$'\n      '}via ${route#*|} "
    done
    {
        printf 'protocol static {\n  ipv4;\n'
        for head in "${!hops[@]}"; do
            indent='    '
            [[ ${hops[$head]} == *$'\n'* ]] && indent='        '
            printf '  route %s %s{\n%skrt_metric = %s;\n%spreference = 256;\n  };\n' \
                "$head" "${hops[$head]}" "$indent" "${head##* }" "$indent"
        done
        printf '}\n'
    } >$file.new
    mv $file.new $file
}

load() {
    local -a keys metrics
    local i
    mapfile -t keys < <(dal --scan --pattern "$pattern")
    ((${#keys[@]})) && mapfile -t metrics < <(dal mget "${keys[@]}")
    for i in "${!keys[@]}"; do put "${keys[i]}" "${metrics[i]}"; done
    write_file
}

follow() {
    local kind key event
    while read -r kind && read -r && read -r key && read -r event; do
        [[ $kind == pmessage ]] || continue
        key=${key#__keyspace@0__:}
        case $event in
        del | expired | evicted) unset "routes[\$key]" ;;
        *) put "$key" "$(dal get "$key")" ;;
        esac
        write_file
    done
}

# the confirmation has three lines; what is changed from then on waits in the pipe
exec 3< <(dal psubscribe "__keyspace@0__:$pattern")
read -r -u 3 && read -r -u 3 && read -r -u 3
load
follow <&3
