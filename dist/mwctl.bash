# Completion of mwctl for bash. mwctl itself knows its commands and options and the records of the tree; what it offers
# comes back one a line.

# What a word that is being typed stands for: without its quotes and backslashes. Nothing in it is expanded.
_mwctl_plain() { # WORD; into $REPLY
    case $1 in
    \'*) REPLY=${1#\'} REPLY=${REPLY%\'} ;;
    \"*) REPLY=${1#\"} REPLY=${REPLY%\"} ;;
    *) IFS= read -d '' REPLY <<<"$1" || REPLY=${REPLY%$'\n'} ;; # read takes the backslashes out
    esac
}

_mwctl() {
    local cur words cword word line plain=() REPLY
    _get_comp_words_by_ref -n := cur words cword
    for word in "${words[@]:1:cword}"; do
        _mwctl_plain "$word"
        case $REPLY in "~/"*) REPLY=$HOME/${REPLY:2} ;; esac
        plain+=("$REPLY")
    done
    case $1 in "~/"*) set -- "$HOME/${1:2}" ;; esac

    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
        '') continue ;;
        /files)
            compopt -o filenames -o default
            COMPREPLY=()
            return
            ;;
        *=) compopt -o nospace ;;
        esac
        # What stands in quotes is completed in them, and needs no backslash.
        case $cur in
        [\'\"]*) COMPREPLY+=("$line") ;;
        *) COMPREPLY+=("$(printf %q "$line")") ;;
        esac
    done <<<"$("$1" complete -- "${plain[@]}" 2>/dev/null)"
    # Bash replaces only what follows the last of its own word breaks.
    case $cur in
    *[:=]*)
        word=${cur%"${cur##*[:=]}"}
        COMPREPLY=("${COMPREPLY[@]#"$word"}")
        ;;
    esac
}

complete -F _mwctl mwctl
