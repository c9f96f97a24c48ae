#include "complete/CompletionScripts.h"

#include <algorithm>
#include <iterator>

namespace QOR {
namespace {

struct Script {
    std::string_view shell;
    std::string_view text;
};

constexpr Script scripts[] = {
    {"bash", R"(# bash completion for qorctl: source <(qorctl completion bash)
_qorctl() {
    local line
    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
            :files) compopt -o default ;;
            :open) compopt -o nospace ;;
            *) COMPREPLY+=("${line%%$'\t'*}") ;;
        esac
    done < <("${COMP_WORDS[0]}" __complete bash "${COMP_LINE:0:COMP_POINT}" 2>/dev/null)
}
complete -F _qorctl qorctl
)"},
    {"fish", R"(# fish completion for qorctl: qorctl completion fish | source
function __qorctl_complete
    set -l words (commandline -opc)
    # The word as it means, also within a quote that is not closed yet.
    set -l word (commandline -ct)
    for closing in '' "'" '"'
        set -l plain (string unescape -- "$word$closing" 2>/dev/null)
        and set word "$plain"
        and break
    end
    for line in (qorctl __complete words $words[2..-1] "$word" 2>/dev/null)
        switch $line
            case ':files'
                __fish_complete_path "$word"
            case ':open'
            case '*'
                echo $line
        end
    end
end
complete -c qorctl -f -a '(__qorctl_complete)'
)"},
    {"zsh", R"(#compdef qorctl
# zsh completion for qorctl: source <(qorctl completion zsh), or a file _qorctl in a folder of $fpath
_qorctl() {
    local line word meaning
    local -a shown options
    while IFS= read -r line; do
        case $line in
            :files) _files ;;
            :open) options+=(-S '') ;;
            *)
                word=${line%%$'\t'*} meaning=${line#*$'\t'}
                shown+=("${word//:/\\:}${meaning:+:$meaning}")
                ;;
        esac
    done < <(qorctl __complete words "${(@Q)words[2,CURRENT]}" 2>/dev/null)
    (( $#shown )) && _describe 'qorctl' shown $options
}
if [ "$funcstack[1]" = _qorctl ]; then _qorctl "$@"; else compdef _qorctl qorctl; fi
)"},
};

}  // namespace

std::vector<std::string> completionShells() {
    std::vector<std::string> shells;
    for (const Script& script : scripts)
        shells.emplace_back(script.shell);
    return shells;
}

std::string_view completionScript(std::string_view shell) {
    const Script* const found = std::find_if(std::begin(scripts), std::end(scripts),
                                             [&](const Script& script) { return script.shell == shell; });
    return found == std::end(scripts) ? std::string_view() : found->text;
}

}  // namespace QOR
