# bash completion for vxcli: commands, options, --columns names, and ports
# by SCSI host and WWPN (from sysfs, so it works without root). vxcli itself
# says what fits (`vxcli __complete WORDS...`), so this file never goes
# stale when commands are added.
_vxcli() {
    local line=${COMP_LINE:0:COMP_POINT}
    local cur=${line##*[[:space:]]}
    local -a words
    # The words typed so far as vxcli sees them: WWPNs keep their colons.
    read -r -a words <<<"${line:0:${#line}-${#cur}}"
    local IFS=$'\n' candidate
    COMPREPLY=()
    for candidate in $("${COMP_WORDS[0]}" __complete "${words[@]:1}" "$cur" 2>/dev/null); do
        # bash replaces only the part after the last ':' of the word.
        if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
            candidate=${candidate#"${cur%:*}:"}
        fi
        COMPREPLY+=("$candidate")
    done
}
complete -F _vxcli vxcli
