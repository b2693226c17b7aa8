// The files page.html, film.html, page.css and page.js, as the build has put them into the program.

#ifndef HOST_SERVE_PARTS_H
#define HOST_SERVE_PARTS_H

extern const char *const PAGE_HTML;
extern const char *const FILM_HTML;
extern const char *const PAGE_CSS;
extern const char *const PAGE_JS;

#endif
