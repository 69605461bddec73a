# bash completion for zelkor-tag: its options, the level names, and the clip
# names of the tag library for --select-tag.

_zelkor_tag() {
    # Options without a value, and options whose value is the next word.
    local flags='--help --version --list-tags --recursive --skip-existing --replace
        --dry-run --json --quiet --verbose --null --no-cache --'
    local valued='--tag --interval --level --jobs --output-dir --format --watch --add-tag
        --select-tag --color'

    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    # "--level=H" comes as one word, or as three when "=" breaks words.
    if [[ $cur == --*=* ]]; then
        prev=${cur%%=*}
        cur=${cur#*=}
    elif [[ $cur == = ]]; then
        cur=
    elif [[ $prev == = && $COMP_CWORD -ge 2 ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    COMPREPLY=()
    case $prev in
    --tag | -t | --add-tag)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    --output-dir | -o | --watch)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        ;;
    --format | -f)
        mapfile -t COMPREPLY < <(compgen -W 'same mp3 wav' -- "$cur")
        ;;
    --color)
        mapfile -t COMPREPLY < <(compgen -W 'auto never always' -- "$cur")
        ;;
    --level | -l)
        mapfile -t COMPREPLY < <(compgen -W 'LOW MID HIGH' -- "${cur^^}")
        ;;
    --select-tag)
        # Clip names hold spaces: one per line, quoted by readline.
        compopt -o filenames
        local want=${cur//\\/} line
        want=${want#[\"\']}
        while IFS= read -r line; do
            [[ ${line:2} == "$want"* ]] && COMPREPLY+=("${line:2}")
        done < <("$1" --list-tags 2>/dev/null)
        ;;
    --interval | -i | --jobs | -j) ;;
    *)
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$flags $valued" -- "$cur")
        else
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        fi
        ;;
    esac
}
complete -F _zelkor_tag zelkor-tag
