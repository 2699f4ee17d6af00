# bash completion for dhcpsnoopctl: the client itself says which words may come next.
_dhcpsnoopctl()
{
    local word=${COMP_WORDS[COMP_CWORD]}
    mapfile -t COMPREPLY < <(compgen -W "$(dhcpsnoopctl complete "${COMP_WORDS[@]:1:COMP_CWORD-1}" 2>/dev/null)" -- "$word")
}
complete -o default -F _dhcpsnoopctl dhcpsnoopctl
