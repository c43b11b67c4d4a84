# Completes one command line:  zsh -f complete.zsh DIRECTORY LINE
# Types the line and a tab into an interactive zsh that has the completions of DIRECTORY, and prints the edited line
# as <LINE>.
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PS1=; fpath=(${(q)1} \$fpath); autoload -U compinit; compinit -u -D; setopt nobeep"
zpty -w shell 'show() { print -r -- "<$BUFFER>"; }; zle -N show; bindkey "^T" show; bindkey "^I" complete-word'
zpty -w shell 'print REA""DY'
zpty -r -m shell output '*READY*'
zpty -w -n shell "$2"$'\t\x14'
zpty -r -m shell output '*<*>*'
print -r -- "$output"
zpty -d shell
