# Fish completion of diskcachectl. It asks the tool's own --help, so that it offers what there is.

function __diskcachectl_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    if test (count $words) -eq 1
        printf '%s\n' --help --version
        $words[1] --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z]*\) .*/\1/p'
        return
    end
    set -l help (env COLUMNS=110 $words[1] $words[2] --help 2>/dev/null | string collect)
    set -l kind
    if string match -q -- '--*' $words[-1]
        set kind (printf '%s\n' $help | sed -n "s/^  $words[-1] \([^ =]*\).*/\1/p")
    end
    switch "$kind"
        case DIR
            __fish_complete_directories $current
        case '*|*'
            string split '|' -- $kind
        case N S L SIZE NAME AGE PERCENT KEY TEXT
        case '*'
            if test -z "$kind"; and string match -q -- '-*' $current
                printf '%s\n' $help | sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]*\).*/\2/p'
            else
                __fish_complete_path $current
            end
    end
end

complete -c diskcachectl -f -a '(__diskcachectl_complete)'
