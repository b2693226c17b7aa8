# shellcheck shell=bash
# The sources, for scripts that source this.

# export_tree FOLDER: what git has and what isn't ignored, as it is now.
export_tree() {
    mkdir "$1"
    git ls-files -z --cached --others --exclude-standard --deduplicate |
        while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
        tar --create --null --files-from=- | tar --extract --no-same-permissions --directory="$1"
}
