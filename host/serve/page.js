'use strict';

// A film: "1:02:03, H.264 1280x720, AAC stereo".
function describe(film) {
    const words = [];
    if (film.duration_ms !== null) words.push(clock(film.duration_ms / 1000));
    if (film.kinds) words.push(film.kinds);
    return words.join(', ');
}

function clock(seconds) {
    const whole = Math.round(seconds);
    const two = (number) => String(number).padStart(2, '0');
    const minutes = Math.floor(whole / 60);
    return minutes < 60 ? `${minutes}:${two(whole % 60)}`
                        : `${Math.floor(minutes / 60)}:${two(minutes % 60)}:${two(whole % 60)}`;
}

async function detailsOf(address) {
    const answer = await fetch(address + 'details.json');
    if (!answer.ok) throw new Error(await answer.text());
    return answer.json();
}

// The films of a folder: the details of those that are seen, two at a time.
function showFolder() {
    const AT_ONCE = 2;
    const waiting = [];
    let busy = 0;
    async function next() {
        if (busy >= AT_ONCE || waiting.length === 0) return;
        ++busy;
        const row = waiting.shift();
        const place = row.querySelector('.details');
        try {
            const film = await detailsOf(row.querySelector('a').getAttribute('href'));
            place.textContent = film.refusal ? 'Can’t be played: ' + film.refusal : describe(film);
            row.classList.toggle('refused', Boolean(film.refusal));
        } catch (error) {
            place.textContent = error.message;
            row.classList.add('refused');
        }
        --busy;
        next();
    }
    const watch = new IntersectionObserver((changes) => {
        for (const change of changes) {
            const at = waiting.indexOf(change.target);
            if (change.isIntersecting && !change.target.asked) {
                change.target.asked = true;
                waiting.push(change.target);
            } else if (!change.isIntersecting && at >= 0) {
                // Scrolled past.
                change.target.asked = false;
                waiting.splice(at, 1);
            }
        }
        for (let i = 0; i < AT_ONCE; ++i) next();
    });
    for (const row of document.querySelectorAll('li.film')) watch.observe(row);
}

function showFilm(video) {
    const PLAYLIST = 'index.m3u8';
    const KIND = 'application/vnd.apple.mpegurl';
    const field = document.getElementById('address');
    const problem = document.getElementById('problem');
    field.value = new URL(PLAYLIST, location.href).href.replace(/[?#].*$/, '');

    document.getElementById('copy').addEventListener('click', async (event) => {
        field.select();
        // Pages of plain HTTP have no clipboard of their own.
        if (navigator.clipboard) await navigator.clipboard.writeText(field.value);
        else document.execCommand('copy');
        event.target.textContent = 'Copied';
    });

    function say(text) {
        problem.textContent = text;
        problem.hidden = false;
    }

    function playByScript() {
        const player = new Hls();
        video.golt = player;
        player.on(Hls.Events.ERROR, (event, fault) => {
            if (!fault.fatal) return;
            if (fault.type === Hls.ErrorTypes.MEDIA_ERROR && !player.recovered) {
                player.recovered = true;
                player.recoverMediaError();
            } else {
                say('The film can’t be played: ' + (fault.error ? fault.error.message : fault.details));
            }
        });
        player.loadSource(PLAYLIST);
        player.attachMedia(video);
    }

    // Chromium's own player finds no picture after a seek into a segment without an IDR picture.
    function play(isIndependent) {
        const hasScript = typeof Hls !== 'undefined' && Hls.isSupported();
        const wantsScript = !isIndependent || new URLSearchParams(location.search).get('player') === 'hls.js';
        if (video.canPlayType(KIND) && !(wantsScript && hasScript)) {
            video.addEventListener('error', () => {
                if (hasScript && !video.golt) playByScript();
                else say('The browser can’t play this film; other players may.');
            });
            video.src = PLAYLIST;
        } else if (hasScript) {
            playByScript();
        } else {
            say('This browser doesn’t play HLS, and the server has no hls.js (see golt serve --hls-js). ' +
                'Other players can play the address below.');
        }
    }

    detailsOf('').then((film) => {
        document.getElementById('details').textContent = describe(film);
        if (film.refusal) {
            video.hidden = true;
            say('This file can’t be played: ' + film.refusal);
            return;
        }
        video.classList.toggle('audio', film.width === null);
        play(film.independent);
    }).catch((error) => say(error.message));
}

const player = document.getElementById('player');
if (player) showFilm(player);
else showFolder();
