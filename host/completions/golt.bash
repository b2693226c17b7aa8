# bash completion of golt: subcommands, their options, and file names.

_golt() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local http="--help --timeout --header --netrc --ca --insecure --verbose"
    local shared="$http --format" options=
    COMPREPLY=()
    case $before in
    --format)
        mapfile -t COMPREPLY < <(compgen -W "mp4 mkv mp3 m2ts ts" -- "$word")
        return
        ;;
    --start | --to | --frames | --count | --timeout | --header) return ;;
    --bind | --port | --cache | --workers | --connections | --per-address | --idle) return ;;
    esac
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "remux info frames check plot hls serve --help --version" -- "$word")
        return
    fi
    case ${COMP_WORDS[1]} in
    remux) options="$shared --start --to --frames --as-is --force --quiet" ;;
    info) options="$shared --scan --json" ;;
    frames) options="$shared --start --count --json --csv" ;;
    check) options="$shared --json" ;;
    plot) options="$shared --output --force" ;;
    hls) options="$shared --force --quiet" ;;
    serve) options="$http --bind --port --cache --workers --connections --per-address --idle --hls-js" ;;
    esac
    if [[ $word = -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    else
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}

complete -F _golt golt
