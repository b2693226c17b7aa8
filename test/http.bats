#!/usr/bin/env bats
# The program golt with inputs on HTTP servers of this machine: a real nginx, which serves a folder
# in several ways, and a small server of our own for what nginx never does. What comes out is always
# the stream of the local file, or a clear word.

bats_require_minimum_version 1.5.0

# start_on_free_port COMMAND: runs it with a port until it stays alive; sets port and pid.
start_on_free_port() {
    local try
    for try in {1..20}; do
        port=$((20000 + RANDOM % 20000))
        "$1" &>>"$port.log" 3>&- &
        pid=$!
        sleep 0.3
        ! kill -0 $pid 2>>"$port.log" || return 0
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
        location /plain/  { alias $PWD/; }
        location /slow/   { alias $PWD/; limit_rate 400k; }
        location /stalls/ { alias $PWD/; limit_rate_after 150k; limit_rate 1; }
        location /dies/   { alias $PWD/; limit_rate_after \$first; limit_rate 1; }
        location /whole/  { alias $PWD/; max_ranges 0; }
        location /moved/  { rewrite ^/moved/(.*) /plain/\$1 redirect; }
    }
}
TEXT
    exec nginx -c "$PWD/$port/nginx.conf" -e "$PWD/$port/error.log"
}

# /cut/FILE: every answer breaks off after 100000 bytes. /gone/FILE: and there is none but the first.
# /changes/FILE: each has another ETag. /chunks/FILE: neither ranges nor a size.
run_server() {
    exec perl -e '
        use IO::Socket::INET;
        my $server = IO::Socket::INET->new(LocalAddr => "127.0.0.1", LocalPort => $ARGV[0],
                                           Listen => 9, ReuseAddr => 1) or exit 1;
        my %answers;
        $SIG{PIPE} = "IGNORE";
        while (my $client = $server->accept) {
            my ($request, $first) = (scalar <$client>, 0);
            while (<$client>) {
                last if /^\r?$/;
                $first = $1 if /^Range: bytes=(\d+)-/i;
            }
            my ($way, $name) = $request =~ m{^GET /(\w+)/([\w.]+) };
            next if $way eq "gone" && $answers{$way};
            open my $file, "<", $name or next;
            binmode $file;
            my $size = -s $file;
            if ($way eq "chunks") {
                print $client "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
                while (read $file, my $bytes, 50000) {
                    printf $client "%x\r\n%s\r\n", length $bytes, $bytes;
                }
                print $client "0\r\n\r\n";
                next;
            }
            ++$answers{$way};
            printf $client "HTTP/1.1 206 Partial Content\r\nContent-Length: %d\r\n" .
                "Content-Range: bytes %d-%d/%d\r\nETag: \"%s\"\r\n\r\n",
                $size - $first, $first, $size - 1, $size, $way eq "changes" ? $answers{$way} : "x";
            seek $file, $first, 0;
            read $file, my $bytes, 100000;
            print $client $bytes;
        }' "$port"
}

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    local movie="ffmpeg -v error -nostdin -f lavfi -i testsrc2=s=320x240:r=25:d=12
        -f lavfi -i sine=sample_rate=48000:duration=12 -c:v libx264 -threads 1 -preset ultrafast
        -qp 18 -g 25 -c:a ac3"
    $movie -movflags +faststart movie.mp4
    $movie end.mp4
    ffmpeg -v error -nostdin -i movie.mp4 -vn -c:a libmp3lame -b:a 320k sound.mp3
    $GOLT remux -q movie.mp4 movie.expected
    $GOLT remux -q end.mp4 end.expected
    $GOLT remux -q sound.mp3 sound.expected
    : >empty.mp4

    start_on_free_port run_nginx
    printf '%s\n' "$port" >nginx
    printf '%s\n' "$pid" >pids
    start_on_free_port run_server
    printf '%s\n' "$port" >server
    printf '%s\n' "$pid" >>pids
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
    same "$nginx/plain/sound.mp3?session=1" sound
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
    same "$nginx/whole/end.mp4" end
    same "$server/chunks/movie.mp4" movie
    same "$server/chunks/sound.mp3" sound
}

@test "says what a server lacks" {
    fails 1 'the server answers 404 Not Found' "$nginx/plain/none.mp4" out
    fails 1 'the file is empty' "$nginx/plain/empty.mp4" out
    fails 1 'Failed to connect' http://127.0.0.1:1/movie.mp4 out
    [ ! -e out ]
    fails 2 'the URL names no file' "$nginx/plain/"
    # What came until then is kept.
    fails 3 'the server sent next to nothing for 1 seconds; gave up after 4 tries' \
        "$nginx/dies/movie.mp4" dies.ts --timeout 1
    head -c "$(stat -c %s dies.ts)" movie.expected | cmp - dies.ts
    fails 3 'gave up after 4 tries' "$server/gone/movie.mp4" gone.ts
    head -c "$(stat -c %s gone.ts)" movie.expected | cmp - gone.ts
    fails 3 'the file changed while it was read' "$server/changes/movie.mp4" changes.ts
}

@test "a signal leaves a valid shorter stream" {
    local status=0
    $GOLT remux -q "$nginx/slow/movie.mp4" out.ts 2>said &
    local writer=$!
    while kill -0 $writer && [ ! -s out.ts.part ]; do sleep 0.1; done
    kill -TERM $writer
    wait $writer || status=$?
    cat said
    [ "$status" -eq 143 ]
    grep -q 'golt: out.ts: stopped by SIGTERM' said
    local size
    size=$(stat -c %s out.ts)
    [ "$size" -gt 100000 ]
    [ "$size" -lt "$(stat -c %s -L movie.expected)" ]
    head -c "$size" movie.expected | cmp - out.ts
    [ ! -e out.ts.part ]
}
