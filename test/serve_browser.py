"""golt serve in a real browser: opens the page, plays a film, seeks in it, and takes pictures of what is seen.

serve_browser.py GOLT HLS_JS FOLDER [--short]: GOLT is the program, HLS_JS the script of that name, and the pictures
go to FOLDER. --short: one film by each player, and no pictures.
"""

import argparse
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from support.browser import open_browser

WAIT = 60  # seconds, for anything
GAP = 0.1  # seconds between two stretches that should be one
SEEN = {"light": (1100, 640), "dark": (1100, 640), "narrow": (390, 780)}


def make_films(folder):
    """A small collection."""
    def ffmpeg(*arguments):
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", *arguments], cwd=folder, check=True)

    picture = ["-f", "lavfi", "-i", "mandelbrot=s=640x360:r=25,format=yuv420p"]
    tone = ["-f", "lavfi", "-i", "sine=frequency=220:sample_rate=48000"]
    h264 = ["-c:v", "libx264", "-preset", "ultrafast", "-crf", "30", "-g", "75", "-bf", "2"]
    (folder / "Holidays").mkdir()
    ffmpeg(*picture, *tone, "-t", "61", *h264, "-c:a", "aac", "A walk.mp4")
    ffmpeg("-i", "A walk.mp4", "-c", "copy", "The same walk.mkv")
    ffmpeg(*tone, "-t", "40", "-c:a", "libmp3lame", "Evening tune.mp3")
    ffmpeg(*tone, *picture, "-t", "2", "-c:v", "mpeg4", "-c:a", "libmp3lame", "Old tape.avi")
    ffmpeg("-i", "A walk.mp4", "-c", "copy", "-t", "20", "Holidays/Lake.mp4")
    ffmpeg(*picture, *tone, "-t", "31", *h264, "-x264-params", "open-gop=1:b-pyramid=none", "-c:a", "aac",
           "Holidays/Open groups.mp4")


def start_golt(golt, folder, hls_js):
    server = subprocess.Popen([golt, "serve", "--port", "0", "--hls-js", hls_js, folder],
                              stderr=subprocess.PIPE, text=True)
    for line in server.stderr:
        found = re.search(r"http://\S+", line)
        if found:
            return server, found.group()
    sys.exit("golt serve doesn't start")


class Player:
    """The player of the page that is shown."""

    def __init__(self, browser):
        self.browser = browser

    def ask(self, expression):
        return self.browser.execute_script("const video = document.getElementById('player'); return " + expression)

    def until(self, expression, what):
        try:
            WebDriverWait(self.browser, WAIT, 0.1).until(lambda _: self.ask(expression))
        except Exception:
            problem = self.ask("document.getElementById('problem').textContent")
            state = self.ask("[video.currentTime, video.readyState, video.error && video.error.message]")
            raise SystemExit("%s: not within %d s: %s %s %s" % (
                what, WAIT, problem, state, self.browser.get_log("browser")))

    def plays_on(self, seconds, what):
        start = self.ask("video.currentTime")
        self.until("video.currentTime > %f" % (start + seconds), what)

    def seek(self, seconds, what):
        self.ask("void (video.currentTime = %f)" % seconds)
        self.until("!video.seeking && video.currentTime >= %f" % (seconds - 0.1), what)
        self.plays_on(1.5, what)
        self.check_buffer(what)

    def check_buffer(self, what):
        """Where two stretches nearly meet, there must be no gap. After a seek they may be far apart."""
        ranges = self.ask("Array.from({length: video.buffered.length},"
                          " (x, i) => [video.buffered.start(i), video.buffered.end(i)])")
        gaps = [b[0] - a[1] for a, b in zip(ranges, ranges[1:])]
        if any(GAP < gap < 2.5 for gap in gaps):
            raise SystemExit("%s: gaps in what is buffered: %s" % (what, ranges))
        return ranges


def play(browser, base, film, way="", f_script=False, f_audio_alone=False):
    """way: the player that is asked for. f_script: hls.js has to play it."""
    what = "%s, %s" % (film, "hls.js" if f_script else "native")
    browser.get(base)
    browser.find_element(By.LINK_TEXT, film).click()
    if way:
        browser.get(browser.current_url + "?player=" + way)
    player = Player(browser)
    player.until("video.readyState >= 3", what + ": loads")
    if bool(player.ask("Boolean(video.golt)")) != f_script:
        raise SystemExit(what + ": the other player plays")
    player.ask("void video.play()")
    player.plays_on(8, what + ": plays from one segment to the next")
    ranges = player.check_buffer(what)
    if len(ranges) != 1:
        raise SystemExit("%s: what is buffered isn't one stretch: %s" % (what, ranges))
    duration = player.ask("video.duration")
    player.seek(duration / 2, what + ": seeks to the middle")
    player.seek(1, what + ": seeks back")
    heard = player.ask("video.webkitAudioDecodedByteCount")
    seen = player.ask("video.getVideoPlaybackQuality().totalVideoFrames")
    if not heard or not (seen or f_audio_alone):
        raise SystemExit("%s: %s bytes of audio, %s pictures decoded" % (what, heard, seen))
    if player.ask("!document.getElementById('problem').hidden"):
        raise SystemExit(what + ": " + player.ask("document.getElementById('problem').textContent"))
    print("%s: plays, seeks to %.1f s and back; %d bytes of audio and %d pictures decoded" % (
        what, duration / 2, heard, seen))


def take_pictures(browser, base, folder):
    folder.mkdir(parents=True, exist_ok=True)
    for name, (width, height) in SEEN.items():
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": name == "narrow"})
        scheme = "dark" if name == "dark" else "light"
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        browser.get(base)
        WebDriverWait(browser, WAIT, 0.1).until(lambda _: browser.execute_script(
            "return [...document.querySelectorAll('li.film .details')].every((line) => line.textContent)"))
        browser.save_screenshot(str(folder / ("folder_%s.png" % name)))
        browser.find_element(By.LINK_TEXT, "A walk.mp4").click()
        player = Player(browser)
        player.until("video.readyState >= 3", "the picture of a film")
        player.ask("void (video.currentTime = 20)")
        player.until("!video.seeking && video.readyState >= 3", "the picture of a film")
        time.sleep(1.5)
        browser.save_screenshot(str(folder / ("film_%s.png" % name)))
    # The two narrow ones side by side, for the README.
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", "folder_narrow.png", "-i", "film_narrow.png",
                    "-filter_complex", "hstack,crop=iw:500:0:0,split[a][b];[a]palettegen=max_colors=128[p];"
                    "[b][p]paletteuse=dither=none", "page.png"], cwd=folder, check=True)


def main():
    arguments = argparse.ArgumentParser()
    for name in ("golt", "hls_js", "folder"):
        arguments.add_argument(name)
    arguments.add_argument("--short", action="store_true")
    given = arguments.parse_args()
    with tempfile.TemporaryDirectory() as place:
        films = Path(place) / "Videos"
        films.mkdir()
        make_films(films)
        server, base = start_golt(given.golt, str(films), given.hls_js)
        try:
            with open_browser() as browser:
                play(browser, base + "Holidays/", "Open groups.mp4", f_script=True)
                for way in ("", "hls.js"):
                    play(browser, base, "A walk.mp4", way, bool(way))
                    if not given.short:
                        play(browser, base, "The same walk.mkv", way, bool(way))
                        play(browser, base, "Evening tune.mp3", way, bool(way), True)
                if not given.short:
                    take_pictures(browser, base, Path(given.folder))
        finally:
            server.terminate()
            server.wait()


main()
