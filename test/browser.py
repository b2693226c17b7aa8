"""Chromium plays transport streams, cut into segments, through Media Source Extensions with hls.js: to the end, and
again from the middle and from the start.

Usage: browser.py HLS_JS FILE.ts...

Prints a line for each file: its name, pictures that were decoded, bytes of audio that were decoded, the largest gap in
what is buffered in milliseconds, how often it waited for more, and errors. Up to the end, all of it at double speed.
"""

import functools
import http.server
import os
import shutil
import sys
import tempfile
import threading

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

TRIES = 3  # a busy machine may make it wait
PACKET = 188
PAT, VIDEO = 0, 0x100
SEGMENT = 2 * 90000

PAGE = """<!DOCTYPE html><script src="hls.js"></script><body><script>
const event = (of, name) => new Promise(done => of.addEventListener(name, done, {once: true}));
const until = async (what, test) => {
    for (let i = 0; i < 400 && !test(); ++i) await new Promise(done => setTimeout(done, 20));
    if (!test()) throw what;
};
async function measure(url) {
    const video = document.createElement('video'), errors = [];
    let waits = 0, loads = true;
    document.body.append(video);
    const hls = new Hls({enableWorker: false});
    hls.on(Hls.Events.ERROR, (name, data) => errors.push(data.details));
    hls.on(Hls.Events.BUFFER_EOS, () => { loads = false; });
    hls.loadSource(url);
    hls.attachMedia(video);
    try {
        await until('not loaded', () => !loads);
        video.addEventListener('waiting', () => { if (!video.seeking) ++waits; });
        video.playbackRate = 2;
        await video.play();
        await until('not played to the end', () => video.ended);
        const pictures = video.getVideoPlaybackQuality().totalVideoFrames;
        const audio = video.webkitAudioDecodedByteCount;
        let gap = 0, end = 0;
        for (let i = 0; i < video.buffered.length; end = video.buffered.end(i), ++i)
            gap = Math.max(gap, video.buffered.start(i) - end);
        for (const at of [0.5, 0]) {
            video.currentTime = at * video.duration;
            await until('not found ' + at, () => !video.seeking);
            await video.play();
            await until('not played from ' + at, () => !video.seeking && video.currentTime > at * video.duration + 0.5);
        }
        return {pictures, audio, gap, waits, errors};
    } catch (error) {
        errors.push(String(error));
        return {pictures: 0, audio: 0, gap: 0, waits, errors};
    } finally {
        hls.destroy();
        video.remove();
    }
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
    with open(os.path.join(folder, "list.m3u8"), "w", encoding="ascii") as playlist:
        playlist.write("\n".join(lines + ["#EXT-X-ENDLIST", ""]))


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *arguments):
        pass


def open_browser():
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for argument in ("--headless=new", "--no-sandbox", "--autoplay-policy=no-user-gesture-required", "--mute-audio",
                     "--disable-gpu", "--disable-dev-shm-usage"):
        options.add_argument(argument)
    browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    browser.set_script_timeout(60)
    return browser


def play(browser, file):
    for _ in range(TRIES):
        result = browser.execute_async_script("measure(arguments[0]).then(arguments[1])",
                                              f"{os.path.basename(file)}/list.m3u8")
        if not result["waits"] and not result["errors"]:
            break
    return result


def main(hls_js, *files):
    with tempfile.TemporaryDirectory() as folder:
        shutil.copy(hls_js, os.path.join(folder, "hls.js"))
        with open(os.path.join(folder, "index.html"), "w", encoding="ascii") as page:
            page.write(PAGE)
        for file in files:
            with open(file, "rb") as stream:
                cut(stream.read(), os.path.join(folder, os.path.basename(file)))
        handler = functools.partial(Quiet, directory=folder)
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            browser = open_browser()
            try:
                browser.get(f"http://127.0.0.1:{server.server_address[1]}/index.html")
                play(browser, files[0])  # with which it starts its decoders
                for file in files:
                    result = play(browser, file)
                    print(os.path.basename(file), result["pictures"], result["audio"], round(result["gap"] * 1000),
                          result["waits"], ",".join(result["errors"]) or "-", flush=True)
            finally:
                browser.quit()
                server.shutdown()


main(*sys.argv[1:])
