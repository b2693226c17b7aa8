"""Chromium plays films: to the end, and again from the middle and from the start.

Usage: browser.py HLS_JS FILM...

A FILM is a transport stream, which is cut into segments, a folder with segments and index.m3u8, or a file that Chromium
plays by itself. Segments go through Media Source Extensions with hls.js.

Prints a line for each film: its name, pictures that were decoded, bytes of audio that were decoded, the largest gap in
what is buffered in milliseconds, how often it waited for more, and errors; up to the end, all of it at double speed.
Then, what it does after seeking: "plays", or "stops" if the decoder has refused what is there.
"""

import functools
import http.server
import os
import shutil
import sys
import tempfile
import threading

from support.browser import open_browser

TRIES = 10
# With these words a busy machine may disturb a film: hls.js's own, and those of waits that have ended.
STALLS = ("bufferStalledError", "not loaded", "not found", "not played")
PACKET = 188
PAT, VIDEO = 0, 0x100
SEGMENT = 2 * 90000

# On a busy machine playing may stall although all is there. hls.js would then seek a little, and pictures would be
# decoded twice; so its watchdog is off. All waits end after a minute.
PAGE = """<!DOCTYPE html><script src="hls.js"></script><body><script>
const until = async (what, test) => {
    for (let i = 0; i < 3000 && !test(); ++i) await new Promise(done => setTimeout(done, 20));
    if (!test()) throw what;
};
async function loadByScript(url, video, errors) {
    let loads = true;
    const hls = new Hls({enableWorker: false, highBufferWatchdogPeriod: 1e6});
    hls.on(Hls.Events.ERROR, (name, data) => errors.push(data.details));
    hls.on(Hls.Events.BUFFER_EOS, () => { loads = false; });
    hls.loadSource(url);
    hls.attachMedia(video);
    await until('not loaded', () => !loads || errors.length > 0);
    return hls;
}
async function load(url, video) {
    video.src = URL.createObjectURL(await (await fetch(url)).blob());
    await untilRefused(video, 'not loaded', () => video.readyState >= 4);
}
function largestGap(ranges) {
    let gap = 0;
    for (let i = 0; i < ranges.length; ++i)
        gap = Math.max(gap, ranges.start(i) - (i === 0 ? 0 : ranges.end(i - 1)));
    return gap;
}
// What comes, unless the decoder refuses the film before.
async function untilRefused(video, what, test) {
    await until(what, () => video.error || test());
    if (video.error) throw video.error.message;
}
// Once it is refused, the decoder stays so.
async function seeks(video) {
    for (const at of [0.5, 0]) {
        const time = at * video.duration;
        video.currentTime = time;
        await until('not found ' + at, () => video.error || !video.seeking);
        video.play().catch(() => {});
        await until('not played from ' + at, () => video.error || (!video.seeking && video.currentTime > time + 0.5));
        if (video.error && video.error.code !== MediaError.MEDIA_ERR_DECODE) throw video.error.message;
        if (video.error) return 'stops';
    }
    return 'plays';
}
async function measure(url) {
    const video = document.createElement('video'), errors = [];
    const found = {pictures: 0, audio: 0, gap: 0, waits: 0, errors: errors, seeking: '-'};
    let hls = null, plays = true;
    document.body.append(video);
    video.addEventListener('waiting', () => { if (plays) ++found.waits; });
    video.addEventListener('seeking', () => { if (plays) errors.push('seeks by itself'); });
    try {
        if (url.endsWith('.m3u8')) hls = await loadByScript(url, video, errors);
        else await load(url, video);
        video.playbackRate = 2;
        await video.play();
        await untilRefused(video, 'not played to the end', () => video.ended);
        plays = false;
        found.pictures = video.getVideoPlaybackQuality().totalVideoFrames;
        found.audio = video.webkitAudioDecodedByteCount;
        found.gap = largestGap(video.buffered);
        found.errors = errors.slice();
        found.seeking = await seeks(video);
    } catch (error) {
        found.errors = errors.concat(String(error));
    } finally {
        if (hls) hls.destroy();
        video.remove();
    }
    return found;
}
</script>"""


def pts_of(packet):
    """Of a packet in which a PES packet begins."""
    at = 4 + (1 + packet[4] if packet[3] & 0x20 else 0) + 9
    return ((packet[at] >> 1 & 7) << 30 | (packet[at + 1] << 8 | packet[at + 2]) >> 1 << 15
            | (packet[at + 3] << 8 | packet[at + 4]) >> 1)


def cut(stream, folder):
    """Into segments, each from the tables before a key picture on."""
    starts = []
    tables = 0
    for at in range(0, len(stream), PACKET):
        packet = stream[at:at + PACKET]
        pid = (packet[1] & 0x1F) << 8 | packet[2]
        if pid == PAT:
            tables = at
        is_key = pid == VIDEO and packet[3] & 0x20 and packet[4] > 0 and packet[5] & 0x40
        if is_key and (not starts or pts_of(packet) - starts[-1][1] >= SEGMENT):
            starts.append((tables, pts_of(packet)))
    os.makedirs(folder)
    lines = ["#EXTM3U", "#EXT-X-VERSION:3", "#EXT-X-PLAYLIST-TYPE:VOD", f"#EXT-X-TARGETDURATION:{SEGMENT // 90000 + 1}"]
    ends = starts[1:] + [(len(stream), starts[-1][1] + SEGMENT)]
    for number, ((begin, pts), (end, next_pts)) in enumerate(zip(starts, ends)):
        with open(os.path.join(folder, f"{number}.ts"), "wb") as segment:
            segment.write(stream[0 if number == 0 else begin:end])
        lines += [f"#EXTINF:{(next_pts - pts) / 90000:.3f},", f"{number}.ts"]
    with open(os.path.join(folder, "index.m3u8"), "w", encoding="ascii") as playlist:
        playlist.write("\n".join(lines + ["#EXT-X-ENDLIST", ""]))


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *arguments):
        pass


def publish(film, folder):
    """Puts a film where the browser finds it, and returns its address."""
    name = os.path.basename(film)
    place = os.path.join(folder, name)
    if os.path.isdir(film):
        shutil.copytree(film, place)
        return name + "/index.m3u8"
    if not film.endswith(".ts"):
        shutil.copy(film, place)
        return name
    with open(film, "rb") as stream:
        cut(stream.read(), place)
    return name + "/index.m3u8"


def play(browser, address):
    """As it is when nothing disturbs it: a busy machine may make it wait, but not always at the same film. What hls.js or the
    decoder complain of counts at once."""
    for _ in range(TRIES):
        result = browser.execute_async_script("measure(arguments[0]).then(arguments[1])", address)
        stalls = [error for error in result["errors"] if error.startswith(STALLS)]
        if stalls != result["errors"] or not (stalls or result["waits"]):
            break
    return result


def main(hls_js, *films):
    with tempfile.TemporaryDirectory() as folder:
        shutil.copy(hls_js, os.path.join(folder, "hls.js"))
        with open(os.path.join(folder, "index.html"), "w", encoding="ascii") as page:
            page.write(PAGE)
        addresses = [publish(film, folder) for film in films]
        handler = functools.partial(Quiet, directory=folder)
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server, open_browser() as browser:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            try:
                browser.get(f"http://127.0.0.1:{server.server_address[1]}/index.html")
                play(browser, addresses[0])  # with which it starts its decoders
                for film, address in zip(films, addresses):
                    result = play(browser, address)
                    print(os.path.basename(film), result["pictures"], result["audio"], round(result["gap"] * 1000),
                          result["waits"], ",".join(result["errors"]).replace(" ", "_") or "-", result["seeking"],
                          flush=True)
            finally:
                server.shutdown()


main(*sys.argv[1:])
