#!/usr/bin/env bats
# golt serve, with clients as they are, and as they shouldn't be.

bats_require_minimum_version 1.5.0
load support/server

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    local movie="ffmpeg -v error -nostdin -f lavfi -i testsrc2=s=320x240:r=25:d=20
        -f lavfi -i sine=sample_rate=48000:duration=20 -c:v libx264 -threads 1 -preset ultrafast
        -qp 18 -g 50 -c:a aac"
    $movie movie.mp4
    ffmpeg -v error -nostdin -i movie.mp4 -c copy movie.mkv
    ffmpeg -v error -nostdin -i movie.mp4 -vn -c:a libmp3lame music.mp3
}

setup() {
    cd "$BATS_TEST_TMPDIR"
    mkdir films
    cp "$BATS_FILE_TMPDIR"/m* films
    export no_proxy=127.0.0.1
    pids=()
}

teardown() {
    local pid
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || continue
        wait "$pid" || true
    done
}

@test "answers what players, pages and caches ask for" {
    serve films
    local address tag
    answers 200 /movie.mp4/index.m3u8
    [ "$(field content-type)" = application/vnd.apple.mpegurl ]
    [ "$(field access-control-allow-origin)" = '*' ]
    grep -q 'BANDWIDTH=.*CODECS="avc1' body
    answers 200 "$(media /movie.mp4)"
    grep -q '^#EXT-X-ENDLIST' body
    [ "$(grep -c '^[0-9]*.ts$' body)" -ge 3 ]

    address=$(segment /movie.mp4 1)
    answers 200 "$address"
    cp body whole
    [ "$(field content-type)" = video/mp2t ]
    [[ $(field cache-control) == *immutable* ]]
    tag=$(field etag)
    answers 200 "$address" -I
    [ "$(field content-length)" -eq "$(stat -c %s whole)" ]
    answers 200 "$address" -I -r 100-199
    answers 206 "$address" -r 100-199
    cmp body <(tail -c +101 whole | head -c 100)
    [ "$(field content-range)" = "bytes 100-199/$(stat -c %s whole)" ]
    answers 206 "$address" -H 'Range: bytes=100-199  '
    answers 206 "$address" -r -188
    cmp body <(tail -c 188 whole)
    answers 206 "$address" -r 188- -H "If-Range: $tag"
    answers 200 "$address" -r 188- -H 'If-Range: "other"'
    answers 416 "$address" -r 99999999-
    [ "$(field cache-control)" = no-store ]
    answers 304 "$address" -H "If-None-Match: \"other\", W/$tag"
    [ ! -s body ]
    [ "$(field content-length)" -eq "$(stat -c %s whole)" ]
    answers 304 "$address" -H 'If-None-Match: "other"' -H "If-None-Match: $tag"
    answers 200 "$address" -H 'If-None-Match: "other"'
    answers 304 "$address" -H "If-Modified-Since: $(field last-modified)"
    answers 304 "$address" -H "If-Modified-Since: $(TZ=UTC date -d tomorrow '+%A, %d-%b-%y %T GMT')"
    answers 304 "$address" -H "If-Modified-Since: $(TZ=UTC date -d tomorrow '+%a %b %e %T %Y')"
    answers 200 "$address" -H 'If-Modified-Since: Sat, 01 Jan 2000 00:00:00 GMT'
    answers 200 "$address" -H 'If-Modified-Since: Saturday, 01-Jan-00 00:00:00 GMT'
    answers 412 "$address" -H 'If-Match: "other"'
    [ "$(field cache-control)" = no-store ]
    answers 404 "$(segment /movie.mp4 99)"
    answers 404 "$(segment /movie.mp4 99)" -H 'If-None-Match: *'
    answers 404 "$(segment /movie.mp4 99)" -H "If-Modified-Since: $(date -uRd tomorrow | sed 's/+0000/GMT/')"
    answers 200 /movie.mp4/index.m3u8
    # Its time is too coarse for what may change within a second.
    [ -z "$(field last-modified)" ]
    answers 200 /status -H 'Host: a, b'
    answers 200 / --request-target http://example.org/movie.mp4/index.m3u8
    answers 204 /movie.mp4/index.m3u8 -X OPTIONS -H 'Origin: http://example.org'
    [ "$(field allow)" = 'GET, HEAD, OPTIONS' ]
    answers 405 /movie.mp4/index.m3u8 -d data
    answers 200 /movie.mp4/index.m3u8 -X GET -d data

    # Twice the same bytes, by another process and another server.
    answers 200 "$address"
    cmp body whole
    local first=$base
    serve films --workers 1 --cache 1M
    [ "$base" != "$first" ]
    answers 304 "$address" -H "If-None-Match: $tag"
    [ -z "$(field content-length)$(field transfer-encoding)" ]
    answers 200 "$address"
    cmp body whole
    [ "$(field etag)" = "$tag" ]

    answers 200 /status
    jq -e '.segments.made == 1 and .answers["2xx"] > 0 and (.processes | length) == 3' body
    [ "$(count cache_misses_total)" -eq 1 ]
    answers 200 /movie.mp4/details.json
    jq -e '.width == 320 and .duration_ms > 19000 and .refusal == null' body
}

@test "shows folders, and why a file can't be played" {
    mkdir 'films/a "b" <i>é' films/empty
    cp films/movie.mkv 'films/a "b" <i>é/100% & #?.mkv'
    printf 'no film' >films/text.avi
    printf 'not shown' | tee films/notes.txt >films/.hidden.mp4
    serve films
    answers 200 /
    [[ $(field content-security-policy) == "default-src 'none'"* ]]
    grep -q '<a href="./a%20%22b%22%20%3Ci%3E%C3%A9/">a "b" &lt;i&gt;é/</a>' body
    [ "$(grep -c '<li ' body)" -eq 6 ]
    answers 301 '/empty?a=b'
    [ "$(field location)" = './empty/?a=b' ]
    answers 200 /empty/
    answers 200 '/a%20%22b%22%20%3ci%3e%C3%A9/'
    local film='/a%20%22b%22%20%3Ci%3E%C3%A9/100%25%20%26%20%23%3F.mkv'
    grep -q '<a href="./100%25%20%26%20%23%3F.mkv/">' body
    answers 200 "$film/"
    grep -q '<video' body
    answers 200 "$(segment "$film" 0)"
    answers 200 /text.avi/details.json
    jq -e '.refusal == "its format isn\u0027t known"' body
    answers 415 /text.avi/index.m3u8
    # Named as golt info names it.
    printf 'RIFF....AVI LIST' >films/text.avi
    answers 200 /text.avi/details.json
    grep -q "$(jq -r .refusal body)" <($GOLT info films/text.avi 2>&1)
    jq -e '.refusal | startswith("AVI isn")' body
    answers 200 /.golt/page.js
    answers 404 /.golt/hls.js

    printf 'script' >hls.js
    mkdir -p other/films
    touch other/films/{part\ 10,part,part\ 2,Part\ 02}.mp4
    serve films other/films films/movie.mp4 --hls-js hls.js
    answers 200 /
    [ "$(grep -o 'href="./[^"]*' body | cut -d/ -f2 | tr '\n' ' ')" = 'films films%20%282%29 movie.mp4 ' ]
    answers 200 '/films%20%282%29/'
    # As people count.
    [ "$(grep -o 'href="./[^/]*' body | cut -d/ -f2 | tr '\n' ' ')" = \
        'Part%2002.mp4 part%202.mp4 part%2010.mp4 part.mp4 ' ]
    answers 200 "$(segment /movie.mp4 0)"
    answers 404 /movie.mkv/index.m3u8
    answers 200 /.golt/hls.js
    run -1 $GOLT serve gone
    run -1 $GOLT serve /dev/null
    run -1 $GOLT serve films --port "${base##*:}"
    run -2 $GOLT serve films --cache 1
    run -2 $GOLT serve films --port 65536
    run -2 $GOLT serve films --connections 1000001
    # What it names leads to it.
    local all
    for all in 0.0.0.0 ::1; do
        [ "$all" != ::1 ] || [ -s /proc/net/if_inet6 ] || continue
        serve films --bind "$all"
        answers 200 /
    done
}

# stays_within STATUS: STATUS is that of a link that stays below the folder.
stays_within() {
    mkdir films/.dots films/sub
    cp films/movie.mp4 films/.dots
    cp films/movie.mp4 films/.dot.mp4
    cp films/movie.mp4 secret.mp4
    ln -s ../secret.mp4 films/out.mp4
    ln -s "$PWD/films/movie.mp4" films/absolute.mp4
    ln -s .. films/up
    ln -s loop films/loop
    ln -s ../movie.mp4 films/sub/in.mp4
    mkfifo films/pipe.mp4
    serve films
    local path
    for path in /.dots/movie.mp4 /.dot.mp4 /out.mp4 /absolute.mp4 /up/secret.mp4 /loop /pipe.mp4 \
        /sub/../movie.mp4 /sub/%2e%2E/movie.mp4 /../secret.mp4 /%2e%2e/secret.mp4 /sub%2f..%2fmovie.mp4 \
        /..%2fsecret.mp4 //movie.mp4 /./movie.mp4 /movie.mp4%00 /%ff%fe /%zz /sub \
        "/$(printf 'a/%.0s' {1..500})"; do
        answers 404 "$path/index.m3u8"
        answers 404 "$path/0123456789abcdef/0.ts"
    done
    answers 404 /movie.mp4/0123456789abcdef/0.ts
    answers 404 /up/
    answers "$1" /sub/in.mp4/index.m3u8
    answers 200 /
    [ "$(grep -c '<li ' body)" -eq 4 ]
    answers 431 / -H "X-Long: $(printf 'a%.0s' {1..20000})"

    # A folder that turns into a link and back while it is looked up.
    mkdir outside films/place
    cp films/music.mp3 outside/film.mkv
    cp films/movie.mkv films/place/film.mkv
    ln -s ../outside films/link
    timeout 60 python3 - "$base" "$(stat -c %s films/movie.mkv)" <<'TEXT'
import ctypes, json, os, sys, threading, urllib.error, urllib.request
AT_FDCWD, RENAME_EXCHANGE = -100, 2
libc = ctypes.CDLL(None, use_errno=True)
def swap():
    while not done:
        assert libc.renameat2(AT_FDCWD, b"films/place", AT_FDCWD, b"films/link", RENAME_EXCHANGE) == 0
done = []
thread = threading.Thread(target=swap)
thread.start()
seen = set()
try:
    for _ in range(500):
        try:
            with urllib.request.urlopen(sys.argv[1] + "/place/film.mkv/details.json") as answer:
                seen.add(json.load(answer)["size"])
        except urllib.error.HTTPError as error:
            assert error.code in (404, 500), error.code
            seen.add(error.code)
finally:
    done.append(True)
    thread.join()
print(seen)
assert int(sys.argv[2]) in seen and 404 in seen and seen <= {int(sys.argv[2]), 404, 500}, seen
TEXT
}

@test "serves nothing else" { stays_within 200; }

@test "serves nothing else on a kernel without openat2" {
    # No links at all, then.
    GOLT="python3 $BATS_TEST_DIRNAME/deny.py openat2 $GOLT" stays_within 404
}

@test "notices that files change, shrink and vanish" {
    serve films
    local address
    address=$(segment /movie.mp4 0)
    answers 200 "$address"
    touch -d tomorrow films/movie.mp4
    answers 404 "$address"
    [ "$(cat body)" = 'the file has changed' ]
    answers 200 "$(segment /movie.mp4 0)"
    [ "$(date -d "$(field last-modified)" +%s)" -le "$(date -d "$(field date)" +%s)" ]
    address=$(segment /movie.mkv 1)
    answers 200 "$address" -I
    truncate -s 50000 films/movie.mkv
    answers 404 "$address"
    rm films/movie.mp4
    answers 404 /movie.mp4/index.m3u8
    answers 404 /movie.mp4/
    # Changes while it is read don't reach a client as another film's bytes.
    mkfifo films/movie.mp4
    answers 404 /movie.mp4/index.m3u8
}

@test "outlives the death of its processes" {
    serve films --workers 2
    answers 200 "$(segment /movie.mkv 0)"
    local victim status=0
    victim=$(pgrep -P "$pid" | tail -n 1)
    kill -9 "$victim"
    says 'ended by signal 9; it is replaced'
    [ "$(count deaths_total)" -eq 1 ]
    kill -TERM "$pid"
    wait "$pid" || status=$?
    [ "$status" -eq 143 ]
    [ -z "$(pgrep -g "$pid")" ]
}

# tries ARGUMENTS...: a maker of this server tries what it shouldn't, and is refused.
tries() {
    LD_PRELOAD=$TAKEN_OVER serve "$@"
    ! grep "aren't limited" said || skip "without libseccomp"
    curl -s -o body "$base/films/movie.mp4/details.json"
    says '^tried'
    run ! grep 'not refused' said
}

@test "a process that was taken over has no way out" {
    [ -n "$TAKEN_OVER" ] || skip "emulated, or with sanitizers"
    : >secret
    tries films films
    tries films http://127.0.0.1:1/none.mp4
    # On a kernel before 5.13.
    GOLT="python3 $BATS_TEST_DIRNAME/deny.py landlock_create_ruleset $GOLT" tries films films
    ln -s movie.mp4 films/link.mp4
    answers 200 /films/movie.mp4/index.m3u8
    answers 404 /films/link.mp4/index.m3u8
}

@test "makers are asked once for what many clients want" {
    serve films --workers 1
    local makers before one
    before=$(count cache_bytes)
    answers 200 /
    one=$(($(count cache_bytes) - before))
    mapfile -t makers < <(pgrep -P "$pid" | tail -n 2)
    kill -STOP "${makers[@]}"
    # Else further requests wait for the first answer.
    curl -s -Z --parallel-immediate -o slow "$base/?[1-8]" 3>&- &
    sleep 1
    kill -CONT "${makers[@]}"
    wait $!
    [ $(($(count cache_bytes) - before)) -eq $((2 * one)) ]
}

# faults PART...: of the script that has them for longer, too.
faults() {
    local program
    read -ra program <<<"$GOLT"
    [ ${#program[@]} -eq 1 ] || skip "emulated"
    python3 "$BATS_TEST_DIRNAME/serve_faults.py" --short --films films "${program[0]}" "$@"
}

@test "nobody notices that processes die, that a file is hostile, that there is a crowd" {
    rm films/music.mp3
    faults kills
    faults hostile
    faults crashes
    faults crowd
}

@test "clients that wait for too long, or for nothing, hear of it" {
    rm films/music.mp3
    # These only wait.
    faults limits 3>&- &
    local other=$!
    faults makers
    wait "$other"
}

@test "reports to a file, though no process but the first may write to it" {
    serve films -v >out
    answers 200 "$(segment /movie.mkv 0)"
    says 'GOLT lib'
    [ -z "$(pgrep -P "$pid" | xargs -I{} find /proc/{}/fd -lname '*/out')" ]
    # What a process says that somebody has taken over.
    printf '\e[31mred\n' >"/proc/$(pgrep -P "$pid" | head -n 1)/fd/2"
    says '^\\x1B\[31mred$'
}

@test "keeps clients within their limits" {
    serve films --workers 1 --connections 8 --per-address 5 --cache 1M
    timeout 20 python3 - "$base" "$(segment /movie.mp4 0)" <<'TEXT'
import socket, sys, time
host, port = sys.argv[1].split("/")[2].split(":")
def connect(text):
    client = socket.create_connection((host, int(port)), timeout=10)
    client.sendall(text)
    return client
def closed(client):
    try:
        return client.recv(1) == b""
    except ConnectionError:
        return True
half = [connect(b"GET / HTTP/1.1\r\nHost: x\r\nX: ") for _ in range(5)]
assert closed(connect(b"GET /status HTTP/1.1\r\nHost: x\r\n\r\n")), "a sixth connection is served"
half.pop().close()
time.sleep(0.2)
# One that asks and doesn't read holds nothing up.
slow = connect(b"GET " + sys.argv[2].encode() + b" HTTP/1.1\r\nHost: x\r\n\r\n")
half.pop().close()
time.sleep(0.2)
assert connect(b"GET /status HTTP/1.1\r\nHost: x\r\n\r\n").recv(12) == b"HTTP/1.1 200"
half.pop().close()
time.sleep(0.2)
assert connect(b"GET /status HTTP/1.1\r\nHost:\r\nHost: y\r\n\r\n").recv(12) == b"HTTP/1.1 400"
TEXT
    # Long pages that nobody reads are held up to a limit. Short ones count for nothing there.
    mkdir films/many films/few
    printf "films/many/$(printf '&%.0s' {1..240})%d.mp4\0" {1000..2499} | xargs -0 touch
    printf "films/few/$(printf '&%.0s' {1..240})%d.mp4\0" {10..39} | xargs -0 touch
    serve films --workers 1 --per-address 300
    timeout 60 python3 - "$base" <<'TEXT'
import socket, sys, time
host, port = sys.argv[1].split("/")[2].split(":")
def ask(path, times=1):
    client = socket.socket()
    client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    client.connect((host, int(port)))
    client.sendall(b"GET %s HTTP/1.1\r\nHost: x\r\n\r\n" % path * times)
    return client
clients = [ask(b"/many/") for _ in range(30)]
codes = [client.recv(12)[-3:] for client in clients]
assert 5 < codes.count(b"200") < 10 and codes.count(b"503") == 30 - codes.count(b"200"), codes
for client in clients:
    client.close()
short = [ask(b"/few/", 10) for _ in range(280)]
assert all(client.recv(12)[-3:] == b"200" for client in short)
time.sleep(1)
code = ask(b"/many/").recv(12)[-3:]
assert code == b"200", code
TEXT
    answers 200 /many/
    local length
    length=$(stat -c %s body)
    answers 304 /many/ -H "If-None-Match: $(field etag)"
    [ "$(field content-length)" -eq "$length" ]
    answers 200 /many/
    grep -q 'There are more; these are the first [0-9]*' body
    [ "$(stat -c %s body)" -lt 2200000 ]
    # When most connections are taken, those that don't get on go soon.
    serve films --workers 1 --connections 4
    timeout 20 python3 - "$base" <<'TEXT'
import socket, sys
host, port = sys.argv[1].split("/")[2].split(":")
idle = [socket.create_connection((host, int(port)), timeout=15) for _ in range(4)]
late = socket.create_connection((host, int(port)), timeout=15)
late.sendall(b"GET /status HTTP/1.1\r\nHost: x\r\n\r\n")
assert late.recv(12) == b"HTTP/1.1 200"
TEXT
    [ "$(count connections_dropped_total)" -ge 1 ]
}

@test "lets clients wait for a place, and counts those that it closes" {
    serve films --workers 4 --connections 2
    timeout 20 python3 - "$base" <<'TEXT'
import socket, sys, time
host, port = sys.argv[1].split("/")[2].split(":")
first = [socket.create_connection((host, int(port)), timeout=15) for _ in range(2)]
others = [socket.create_connection((host, int(port)), timeout=15) for _ in range(6)]
for client in others:
    client.sendall(b"GET /status HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
time.sleep(0.5)  # for servers without a place to let them in
for client in first:
    client.close()
for client in others:
    assert client.recv(12) == b"HTTP/1.1 200"
    client.close()
TEXT
    [ "$(count connections_refused_total)" -eq 0 ]
    # One that says nothing, one in the middle of a head, and one after an answer.
    serve films --workers 1 --idle 2
    timeout 20 python3 - "$base" <<'TEXT'
import socket, sys
host, port = sys.argv[1].split("/")[2].split(":")
for text in b"", b"GET /status HTTP/1.1\r\nHost: ", b"GET /status HTTP/1.1\r\nHost: x\r\n\r\n":
    client = socket.create_connection((host, int(port)), timeout=15)
    client.sendall(text)
    while client.recv(65536):
        pass
TEXT
    [ "$(count connections_dropped_total)" -eq 3 ]
}

# hashes INPUT STREAM [OPTION...]: of its decoded frames.
hashes() { ffmpeg -v error -nostdin -i "$1" -map "0:$2" "${@:3}" -f framehash -hash md5 - | awk -F', *' '/^0/ {print $6}'; }

# same FILE STREAM [OPTION...]: ffmpeg decodes the playlist to what it decodes the file to. What an encoder puts before the
# first audio is dropped in files alone;
# a frame that holds an index is one more in streams.
same() {
    hashes "films/$1" "${@:2}" >expected
    hashes "$base/$1/index.m3u8" "${@:2}" >got
    echo "$1 $2: $(wc -l <expected) $(wc -l <got)"
    [ -s expected ]
    [ $(($(wc -l <got) - $(wc -l <expected))) -le $([ "$2" = a ] && echo 1 || echo 0) ]
    tail -n "$(wc -l <expected)" got | cmp - expected
}

@test "ffmpeg decodes the playlist to what the file holds" {
    serve films
    same movie.mp4 v
    same movie.mp4 a
    same movie.mkv v
    same movie.mkv a
    # An encoder's delay, which a file states and a stream doesn't, moves what is decoded: the frames, then.
    same music.mp3 a -c copy
}

@test "serves files of another server, and waits for none that stalls" {
    cd films
    python3 "$BATS_TEST_DIRNAME/lying_server.py" >../port 2>../log 3>&- &
    pids+=($!)
    cd ..
    while [ ! -s port ]; do sleep 0.1; done
    local other
    other=http://127.0.0.1:$(cat port)
    # An address that stands for a version outlives this run where the other server states one.
    local way first
    for way in announced nameless; do
        serve "$other/$way/movie.mp4"
        first=$(media /movie.mp4)
        serve "$other/$way/movie.mp4"
        answers "$([ $way = announced ] && echo 200 || echo 404)" "$first"
    done
    serve "$other/announced/movie.mp4" "$other/drips/movie.mkv" "$other/escapes/music.mp3" films \
        --timeout 2 --workers 1
    answers 200 "$(segment /movie.mp4 1)"
    cp body whole
    answers 200 "$(segment /films/movie.mp4 1)"
    cmp body whole
    local address
    address=$(segment /films/movie.mkv 1)
    curl -s -o slow "$base/movie.mkv/index.m3u8" 3>&- &
    pids+=($!)
    sleep 0.5
    # Nor for versions of it that somebody makes up.
    curl -s -Z --parallel-immediate --parallel-max 90 -o slow "$base/movie.mkv/00000000000000[10-99]/0.ts" 3>&- &
    pids+=($!)
    sleep 0.5
    answers 200 "$address" -m 4
    answers 502 /music.mp3/index.m3u8
}

@test "takes a socket of the service manager" {
    cat >activate.py <<'TEXT'
import os, socket, sys
listener = socket.socket(socket.AF_UNIX) if sys.argv[1] == "unix" else socket.socket()
listener.bind("unix" if sys.argv[1] == "unix" else ("127.0.0.1", 0))
listener.listen()
os.dup2(listener.fileno(), 3)
os.set_inheritable(3, True)
os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1")
os.execvp(sys.argv[2], sys.argv[2:])
TEXT
    run -1 timeout 20 python3 activate.py unix $GOLT serve films
    [[ $output == *"isn't a socket of IPv4 or IPv6" ]]
    GOLT="python3 activate.py tcp $GOLT" serve films --workers 1
    answers 200 /movie.mp4/details.json
}
