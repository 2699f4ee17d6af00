# bash completion for dhcpsnoopctl: the client itself says which words may come next.
_dhcpsnoopctl()
{
    local cur=${COMP_WORDS[COMP_CWORD]} cword=$COMP_CWORD words=("${COMP_WORDS[@]}") word
    # IPv6 and MAC addresses are one word each.
    ! declare -F _get_comp_words_by_ref >/dev/null || _get_comp_words_by_ref -n : cur cword words
    COMPREPLY=()
    while read -r word; do # compgen -W would expand the words
        [[ $word != "$cur"* ]] || COMPREPLY+=("$word")
    done < <(dhcpsnoopctl complete "${words[@]:1:cword-1}" 2>/dev/null)
    ! declare -F __ltrim_colon_completions >/dev/null || __ltrim_colon_completions "$cur"
}
complete -o default -F _dhcpsnoopctl dhcpsnoopctl
