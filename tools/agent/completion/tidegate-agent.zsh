#compdef tidegate-agent
# Completion of tidegate-agent for zsh, which reads the options from --help itself.

_arguments '1: :(top)' '*: :_files' --
