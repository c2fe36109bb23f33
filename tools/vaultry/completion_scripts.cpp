// The scripts that the shells read. See completion.h.
//
// Each script takes the words of the line out of their quotes, without expanding anything in them: nothing that is
// typed may run before it is entered. The shell quotes the candidates that it offers.

#include "completion.h"

#include <cstdio>

static constexpr char kBash[] = R"sh(_vaultry()
{
    local line=${COMP_LINE:0:COMP_POINT} words=() word='' start=0 quote='' begun='' c i
    for ((i = 0; i < ${#line}; ++i)); do
        c=${line:i:1}
        if [[ $c == "\\" && $quote != "'" ]]; then
            ((++i)) && word+=${line:i:1} begun=1
        elif [[ $quote && $c == "$quote" ]]; then
            quote=''
        elif [[ ! $quote && $c == [\'\"] ]]; then
            quote=$c begun=1
        elif [[ ! $quote && $c == [[:space:]] ]]; then
            [[ $begun ]] && words+=("${word/#'~/'/"$HOME/"}")
            word='' start=0 begun=''
        else
            word+=$c begun=1
            # What the shell replaces begins behind such a character.
            [[ ! $quote && $COMP_WORDBREAKS == *"$c"* ]] && start=${#word}
        fi
    done
    local replies files=() reply
    mapfile -t replies < <(command vaultry __complete "${words[@]:1}" "$word" 2>/dev/null)
    case ${replies[0]} in
    files)
        compopt -o default # where there is nothing else
        ((${#replies[@]} > 1)) && mapfile -t files < <(compgen -f -- "$word") ;;
    directories) compopt -o dirnames ;;
    esac
    COMPREPLY=()
    for reply in "${replies[@]:1}" "${files[@]}"; do
        reply=${reply%%$'\t'*} reply=${reply:start}
        case $quote in
        \") reply=${reply//\\/\\\\} reply=${reply//\"/\\\"} reply=${reply//\$/\\\$} reply=${reply//\`/\\\`} ;;
        \') reply=${reply//\'/\'\\\'\'} ;;
        *) printf -v reply %q "$reply" ;;
        esac
        COMPREPLY+=("$reply")
    done
}
complete -F _vaultry vaultry
)sh";

static constexpr char kZsh[] = R"sh(#compdef vaultry
_vaultry()
{
    local -a before replies names shown
    local reply
    before=("${(@Q)words[2,CURRENT-1]}")
    replies=("${(@f)$(command vaultry __complete "${(@)before/#\~\//$HOME/}" "${(Q)PREFIX}" 2>/dev/null)}")
    for reply in "${(@)replies[2,-1]}"; do
        names+=("${reply%%$'\t'*}")
        shown+=("${reply/$'\t'/  -- }")
    done
    (($#names)) && compadd -l -d shown -a names
    [[ $PREFIX == --*=* ]] && compset -P '*='
    case $replies[1] in
    files) _files ;;
    directories) _files -/ ;;
    esac
}
if [ "$funcstack[1]" = _vaultry ]; then _vaultry; else compdef _vaultry vaultry; fi
)sh";

static constexpr char kFish[] = R"sh(function __vaultry_complete
    set -l before (commandline -opc | string replace -r '^~/' "$HOME/")
    set -l option (string match -- '-*' (commandline -ct)) # of all else fish finds what fits
    set -l replies (command vaultry __complete $before[2..] "$option" 2>/dev/null)
    printf '%s\n' $replies[2..]
    switch "$replies[1]"
        case files
            __fish_complete_path (commandline -ct)
        case directories
            __fish_complete_directories (commandline -ct)
    end
end
complete -c vaultry -f -a '(__vaultry_complete)'
)sh";

void PrintCompletion(const std::string &shell)
{
    fputs(shell == "bash" ? kBash : shell == "zsh" ? kZsh : kFish, stdout);
}
