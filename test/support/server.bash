# A running golt serve, and how its answers are read.

# serve ARGUMENTS...: starts a server; sets base, its address, and pid, and adds to pids.
serve() {
    rm -f said
    $GOLT serve --port 0 "$@" 2>said 3>&- &
    pid=$!
    pids+=("$pid")
    local running=yes
    until grep -qs ' http:' said; do
        # What it said before it ended is complete only after the end.
        if [ -z "$running" ]; then
            if grep -q 'libmicrohttpd' said; then skip "$(cat said)"; fi
            cat said
            return 1
        fi
        kill -0 "$pid" 2>/dev/null || running=
        sleep 0.05
    done
    base=$(sed -n 's/^golt: \(http:.*\)\/$/\1/p' said | tail -n 1)
}

# says TEXT: waits until the server has said it.
says() {
    local try
    for try in {1..300}; do
        ! grep -q "$1" said || return 0
        sleep 0.1
    done
    cat said
    return 1
}

# answers STATUS PATH [ARGUMENTS...]: the head of the answer goes to head, the body to body.
answers() {
    local status=$1 path=$2 got
    shift 2
    got=$(curl -s --path-as-is -D head -o body -w '%{http_code}' "$base$path" "$@")
    echo "$path: $got"
    [ "$got" = "$status" ]
}

# field NAME: its value in the last head.
field() { sed -n "s/^$1: \(.*\)\r\$/\1/Ip" head; }

# media PATH: the film's playlist of segments.
media() { echo "$1/$(curl -s "$base$1/index.m3u8" | grep -v '^#')"; }

# segment PATH N: the address of a segment.
segment() { echo "$(dirname "$(media "$1")")/$2.ts"; }

# count PATTERN: a number of /metrics.
count() { curl -s "$base/metrics" | sed -n "s/^golt_$1 //p"; }
