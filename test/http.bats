#!/usr/bin/env bats
# The program golt with inputs on HTTP servers of this machine: a real nginx, which serves a folder
# in several ways, and a server of our own that lies. What comes out is always the stream of the
# local file, or a clear word.

bats_require_minimum_version 1.5.0

# start_on_free_port COMMAND: runs it with a port until it listens there; sets port and pid. This port, and the one
# 10000 above it, are below those from which the system takes a client's.
start_on_free_port() {
    local try waits
    for try in {1..20}; do
        port=$((12000 + RANDOM % 10000))
        "$1" &>>"$port.log" 3>&- &
        pid=$!
        # For a port in use nginx waits 2.5 s, then it ends.
        for waits in {1..40}; do
            sleep 0.1
            kill -0 $pid 2>>"$port.log" || break
            # It writes this when it has both ports.
            [ ! -s "$port/pid" ] || return 0
        done
        kill $pid 2>>"$port.log" || true
    done
    return 1
}

run_nginx() {
    mkdir -p "$port"
    cat >"$port/nginx.conf" <<TEXT
user root;
daemon off;
pid $PWD/$port/pid;
error_log $PWD/$port/error.log;
events {}
http {
    access_log $PWD/$port/access.log;
    client_body_temp_path $PWD/$port/a;
    proxy_temp_path $PWD/$port/b;
    fastcgi_temp_path $PWD/$port/c;
    uwsgi_temp_path $PWD/$port/d;
    scgi_temp_path $PWD/$port/e;
    # Only the first request gets something before the rate sinks.
    map \$http_range \$first { bytes=0- 200k; default 1; }
    server {
        listen 127.0.0.1:$port;
        listen 127.0.0.1:$((port + 10000)) ssl;
        ssl_certificate $PWD/certificate.pem;
        ssl_certificate_key $PWD/key.pem;
        location /plain/  { alias $PWD/; }
        location /slow/   { alias $PWD/; limit_rate 400k; }
        # Takes a minute: whoever means to stop it has time.
        location /slower/ { alias $PWD/; limit_rate 40k; }
        location /stalls/ { alias $PWD/; limit_rate_after 150k; limit_rate 1; }
        location /dies/   { alias $PWD/; limit_rate_after \$first; limit_rate 1; }
        location /whole/  { alias $PWD/; max_ranges 0; }
        location /secret/ { alias $PWD/; if (\$http_authorization != "Basic dXNlcjpodXNo") { return 401; } }
        location /moved/  { rewrite ^/moved/(.*) /plain/\$1 redirect; }
    }
}
TEXT
    exec nginx -c "$PWD/$port/nginx.conf" -e "$PWD/$port/error.log"
}

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    local movie="ffmpeg -v error -nostdin -f lavfi -i testsrc2=s=320x240:r=25:d=12
        -f lavfi -i sine=sample_rate=48000:duration=12 -c:v libx264 -threads 1 -preset ultrafast
        -qp 18 -g 25 -c:a ac3"
    $movie -movflags +faststart movie.mp4
    $movie end.mp4
    ffmpeg -v error -nostdin -i movie.mp4 -vn -c:a libmp3lame -b:a 320k audio.mp3
    $GOLT remux -q movie.mp4 movie.expected
    $GOLT remux -q end.mp4 end.expected
    $GOLT remux -q audio.mp3 audio.expected
    : >empty.mp4

    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 \
        -addext subjectAltName=IP:127.0.0.1 -keyout key.pem -out certificate.pem 2>openssl.log

    start_on_free_port run_nginx
    printf '%s\n' "$port" >nginx
    printf '%s\n' "$pid" >pids
    python3 "$BATS_TEST_DIRNAME/lying_server.py" >server 2>server.log 3>&- &
    printf '%s\n' $! >>pids
    while kill -0 $! && [ ! -s server ]; do sleep 0.1; done
}

teardown_file() {
    cd "$BATS_FILE_TMPDIR"
    kill $(cat pids)
}

setup() {
    cd "$BATS_TEST_TMPDIR"
    local files=$BATS_FILE_TMPDIR
    ln -s "$files"/*.expected .
    nginx=http://127.0.0.1:$(cat "$files/nginx")
    secure=https://127.0.0.1:$(($(cat "$files/nginx") + 10000))
    server=http://127.0.0.1:$(cat "$files/server")
    export no_proxy=127.0.0.1
    run $GOLT info "$nginx/plain/movie.mp4"
    if [[ $output = *libcurl* ]]; then skip "$output"; fi
    [ "$status" -eq 0 ]
}

# same URL NAME [OPTION...]: the stream of the local file of that name.
same() {
    local url=$1 name=$2
    shift 2
    $GOLT remux -q "$url" out.ts --force "$@"
    cmp out.ts "$name.expected"
}

# fails STATUS MESSAGE ARGUMENTS...
fails() {
    local expected=$1 message=$2
    shift 2
    run "-$expected" $GOLT remux -q "$@"
    echo "$output"
    [[ $output == *"$message"* ]]
}

@test "reads what nginx serves" {
    same "$nginx/plain/movie.mp4" movie
    same "$nginx/plain/end.mp4" end
    same "$nginx/plain/audio.mp3?session=1" audio
    same "$nginx/moved/end.mp4" end
    $GOLT remux -q "$nginx/plain/movie.mp4?x=1#y"
    cmp movie.ts movie.expected
    $GOLT remux -q "$nginx/plain/movie.mp4" - --start 0:05 >tail
    $GOLT remux -q "$BATS_FILE_TMPDIR/movie.mp4" local --start 0:05
    cmp tail local
}

@test "waits for a slow server" {
    same "$nginx/slow/end.mp4" end --timeout 2
}

@test "asks a server again that stalls or breaks off" {
    same "$nginx/stalls/end.mp4" end --timeout 1
    same "$server/cut/end.mp4" end
}

@test "reads without ranges, as far as that goes" {
    same "$nginx/whole/movie.mp4" movie
    # What the edit list at its end says can't be known in time.
    [ -z "$($GOLT remux "$nginx/whole/movie.mp4" said.ts 2>&1 | grep 'edit list')" ]
    $GOLT remux --force "$nginx/whole/end.mp4" said.ts 2>&1 | grep 'edit lists not applied'
    $GOLT remux -q --as-is "$BATS_FILE_TMPDIR/end.mp4" bare.expected
    same "$nginx/whole/end.mp4" bare --as-is
    same "$server/chunks/movie.mp4" movie
    same "$server/chunks/audio.mp3" audio
}

@test "believes no server that lies" {
    local way
    for way in unknown unknown_once announced chunks; do
        echo "$way"
        same "$server/$way/movie.mp4" movie
    done
    # What came until then is kept.
    fails 3 'sends more than it has announced' "$server/longer/movie.mp4" out.longer
    fails 3 'has nothing from offset' "$server/end/end.mp4" out.end
    for way in changes vanishes shrinks replaced unknown_empty; do
        fails 3 'the file changed while it was read' "$server/$way/movie.mp4" out.$way
    done
    fails 3 'the server sends the file encoded (gzip)' "$server/gzip/movie.mp4" out.gzip
    fails 3 'sends another range than was asked for' "$server/other/movie.mp4" out.other
    fails 3 'gave up after 4 tries' "$server/gone/movie.mp4" out.gone
    fails 3 ' bytes early; gave up after 4 tries' "$server/nibbles/movie.mp4" out.nibbles
    fails 3 'gave up after 4 tries' "$server/unknown_silent/audio.mp3" out.silent
    fails 3 "whether it is whole isn't known" "$server/halved/audio.mp3" out.halved
    fails 3 "whether it is whole isn't known" "$server/endless/audio.mp3" out.endless
    fails 3 'next to nothing for 1 second; gave up after 4 tries' "$server/drips/movie.mp4" out.drips --timeout 1
    cmp out.endless audio.expected
    for way in longer changes vanishes shrinks replaced gzip other gone nibbles drips; do
        head -c "$(stat -c %s out.$way)" movie.expected | cmp - out.$way
    done
    fails 1 'answers 404 \x1B[31mred\x9B0m' "$server/escapes/movie.mp4" out
}

@test "asks with certificates, fields and passwords" {
    local certificate=$BATS_FILE_TMPDIR/certificate.pem login=${nginx/127/user:hush@127}
    fails 1 'SSL certificate problem' "$secure/plain/movie.mp4" out
    fails 1 'none.pem' "$secure/plain/movie.mp4" out --ca none.pem
    same "$secure/plain/movie.mp4" movie --ca "$certificate"
    same "$secure/plain/end.mp4" end --insecure
    SSL_CERT_FILE=$certificate same "$secure/plain/movie.mp4" movie

    fails 1 'answers 403' "$server/token/audio.mp3" out
    same "$server/token/audio.mp3" audio --header 'X-Other: 1' --header 'X-Token: secret'
    fails 2 '--header takes NAME:VALUE' "$server/token/audio.mp3" out --header 'secret'
    fails 2 "--header can't set" "$server/token/audio.mp3" out --header 'Range: secret'
    [[ $output != *secret* ]]

    same "$login/secret/movie.mp4" movie
    printf 'machine 127.0.0.1 login user password hush\n' >.netrc
    HOME=$PWD same "$nginx/secret/movie.mp4" movie --netrc
    HOME=$PWD fails 1 'answers 401' "$nginx/secret/movie.mp4" out
    $GOLT info "$login/secret/movie.mp4" >said 2>&1
    $GOLT check "$login/secret/movie.mp4" --json >>said 2>&1
    $GOLT plot "$login/secret/movie.mp4" -o - >>said 2>&1
    run -1 $GOLT frames "$login/plain/none.mp4" --json
    run -2 $GOLT frames "$login/plain/none.mp4" "$login/other"
    printf '%s\n' "$output" >>said
    grep -q 'user:\*\*\*@127' said
    [ "$(grep -c hush said)" -eq 0 ]
    # Nor does the list of processes show them.
    $GOLT remux -q "$login/slow/end.mp4" slow.ts --header 'X-Token: hush' 2>/dev/null 3>&- &
    while kill -0 $! && [ ! -e slow.ts.part ]; do sleep 0.1; done
    tr '\0' ' ' <"/proc/$!/cmdline" >said
    kill $!
    grep -q 'user:\*\*\*@127.*slow.ts --header X-Token:\*\*\*' said
    [ "$(grep -c hush said)" -eq 0 ]
}

@test "leaves other files alone" {
    # A file of that name appears while the output is being written: by one run, and by another one where
    # the system can't rename without replacing.
    local other writer status=0
    $GOLT remux -q "$nginx/slow/end.mp4" out.ts 2>said &
    writer=$!
    while kill -0 $writer && [ ! -e out.ts.part ]; do sleep 0.1; done
    kill -STOP $writer
    python3 "$BATS_TEST_DIRNAME/deny.py" renameat2 $GOLT remux -q "$nginx/slow/end.mp4" other.ts 2>said.other &
    other=$!
    while kill -0 $other && [ ! -e other.ts.part ]; do sleep 0.1; done
    kill -STOP $other
    run -1 $GOLT remux -q "$nginx/plain/end.mp4" out.ts
    [[ $output == *'out.ts.part: is being written by another run'* ]]
    printf old | tee other.ts >out.ts
    # Another run of force doesn't disturb the first.
    same "$nginx/plain/movie.mp4" movie
    kill -CONT $writer $other
    wait $writer || status=$?
    cat said
    [ "$status" -eq 1 ]
    grep -q 'out.ts: has appeared meanwhile; the stream is left in out.ts.part' said
    cmp out.ts movie.expected
    cmp out.ts.part end.expected
    status=0
    wait $other || status=$?
    [ "$status" -eq 1 ]
    grep -q 'other.ts: has appeared meanwhile; the stream is left in other.ts.part' said.other
    [ "$(cat other.ts)" = old ]
    [ "$(ls | grep -c 'part$')" -eq 2 ]
    # What is left over isn't being written.
    same "$nginx/plain/movie.mp4" movie
    [ ! -e out.ts.part ]
}

@test "says what a server lacks" {
    fails 1 'the server answers 404 Not Found' "$nginx/plain/none.mp4" out
    fails 1 'the file is empty' "$nginx/plain/empty.mp4" out
    fails 1 'Failed to connect' http://127.0.0.1:1/movie.mp4 out
    [ ! -e out ]
    fails 2 'the URL names no file' "$nginx/plain/"
    # What came until then is kept.
    fails 3 'the server sent next to nothing for 1 second; gave up after 4 tries' \
        "$nginx/dies/movie.mp4" dies.ts --timeout 1
    head -c "$(stat -c %s dies.ts)" movie.expected | cmp - dies.ts
}

@test "a signal leaves a valid shorter stream" {
    local status=0
    $GOLT remux -q "$nginx/slower/movie.mp4" out.ts 2>said 3>&- &
    local writer=$!
    size() { stat -c %s "$1" 2>/dev/null || echo 0; }
    while kill -0 $writer && [ "$(size out.ts.part)" -lt 100000 ]; do sleep 0.1; done
    # As timeout(1) does, which signals the program and then its group. Where both wait, the second may come first.
    kill -TERM $writer
    kill -HUP $writer
    wait $writer || status=$?
    cat said
    [ "$status" -eq 143 ] || [ "$status" -eq 129 ]
    grep -q 'golt: out.ts: stopped by SIG[TH]' said
    [ "$(size out.ts)" -lt "$(stat -c %s -L movie.expected)" ]
    head -c "$(size out.ts)" movie.expected | cmp - out.ts
    [ ! -e out.ts.part ]
}
