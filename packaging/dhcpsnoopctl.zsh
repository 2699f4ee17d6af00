#compdef dhcpsnoopctl
# zsh completion for dhcpsnoopctl: the client itself says which words may come next.
local -a choices
choices=(${(f)"$(dhcpsnoopctl complete ${words[2,CURRENT-1]} 2>/dev/null)"})
if (( $#choices )); then compadd -a choices; else _files; fi
