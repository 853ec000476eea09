#!/usr/bin/env bash
# The generated manual page and shell completions of the datastore tool, as a shell loads them.
#   shell_test.sh <datastore> <folder of datastore.1, datastore (bash), _datastore (zsh)>
set -uo pipefail
tool=$1
dir=$2
failures=0
expect() {  # expect <what> <expected> <actual>
    if [[ $2 != "$3" ]]; then
        echo "FAIL: $1: expected [$2], got [$3]"
        failures=$((failures + 1))
    fi
}

# ---- bash: COMPREPLY for a command line whose last word is being completed
bash_complete() {
    bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _datastore
             printf "%s\n" "${COMPREPLY[@]}" | sort | paste -sd" "' _ "$dir/datastore" "$@"
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
mkdir sub && touch custom.db notes.txt

# The hidden single-alert command is not offered, so "al" completes to "alerts".
expect "bash: command" "alerts" "$(bash_complete datastore al)"
expect "bash: command" "alerts" "$(bash_complete datastore alerts)"
expect "bash: commands by prefix" "scriptlets scripts" "$(bash_complete datastore scr)"
expect "bash: subcommand" "set" "$(bash_complete datastore state s)"
expect "bash: options" "--since --status" "$(bash_complete datastore scriptlets --s)"
expect "bash: output formats" "json json-pretty" "$(bash_complete datastore alerts -o j)"
expect "bash: no options of another command" "" "$(bash_complete datastore state list --ty)"
expect "bash: an option's value is skipped" "--json" "$(bash_complete datastore alerts --type x --js)"
expect "bash: store names, .db files and folders" \
    "appstate.db custom.db event.db genstore.db softwarediagevent.db sub" \
    "$(bash_complete datastore alerts --file '')"
expect "bash: store names by prefix" "event.db" "$(bash_complete datastore alerts --file ev)"
expect "bash: folders" "sub" "$(bash_complete datastore info --dir '')"
expect "bash: any file" "custom.db notes.txt sub" "$(bash_complete datastore export --mark '')"
expect "bash: export folder" "sub" "$(bash_complete datastore export --out '')"
expect "bash: schema kinds" "clickhouse" "$(bash_complete datastore export --schema '')"
expect "bash: grep's options" "--case-sensitive --count" "$(bash_complete datastore grep --c)"
expect "bash: timeline kinds" "test" "$(bash_complete datastore timeline --kind te)"
expect "bash: a free value has no candidates" "" "$(bash_complete datastore alerts --type '')"
expect "bash: registered" "complete -F _datastore datastore" \
    "$(bash -c 'source "$1"; complete -p datastore' _ "$dir/datastore")"

# Every command the tool lists is offered, and nothing else.
commands=$("$tool" --completion-listing | sed -n 's/^command datastore //p' | tr ' ' '\n' | sort | paste -sd' ')
expect "bash: every command" "$commands" "$(bash_complete datastore '')"

# ---- zsh: the completion function with compadd and _files recording what they are given
zsh_complete() {
    zsh -f -c 'compadd() { [[ $1 == -a ]] && print -r -- ${(P)2}; }
               _files() { print -r -- "_files $*"; }
               words=("${@:2}"); CURRENT=$#words; source "$1"' _ "$dir/_datastore" "$@" \
        | tr ' ' '\n' | sed '/^$/d' | sort | paste -sd' '
}
expect "zsh: commands" "$commands" "$(zsh_complete datastore '')"
expect "zsh: subcommands" "get list rm set" "$(zsh_complete datastore state '')"
expect "zsh: options" "--dir --file --group --help --json --limit --no-pager --output --utc --wait --wide -h -o" \
    "$(zsh_complete datastore state list -)"
expect "zsh: store names and .db files" \
    "*.db -g _files appstate.db event.db genstore.db softwarediagevent.db" \
    "$(zsh_complete datastore alerts --file '')"
expect "zsh: folders" "-/ _files" "$(zsh_complete datastore info --dir '')"
expect "zsh: any file" "_files" "$(zsh_complete datastore export --mark '')"

# ---- the manual page: renders without a groff warning and documents every command
man_text=$(MANWIDTH=100 man --warnings -l "$dir/datastore.1" 2>"$work/man.err")
expect "man: warnings" "" "$(cat "$work/man.err")"
expect "man: title" "DATASTORE(1)" "$(head -1 <<<"$man_text" | awk '{print $1}')"
for command in $commands; do
    grep -q "^   datastore $command\$" <<<"$man_text" || {
        echo "FAIL: man: no section for $command"
        failures=$((failures + 1))
    }
done
expect "man: fleet section" "FLEET DATABASE" "$(grep -x 'FLEET DATABASE' <<<"$man_text")"
fleet_line="       datastore export --schema clickhouse | clickhouse-client --multiquery"
expect "man: fleet schema" "$fleet_line" "$(grep -xF -e "$fleet_line" <<<"$man_text")"
grep -q "$(dirname "$tool")" "$dir/datastore.1" && {
    echo "FAIL: man: names the build folder"
    failures=$((failures + 1))
}

[[ $failures -eq 0 ]] && echo "all shell checks passed"
exit $((failures > 0))
