#compdef tidegate-agent
# Completion of tidegate-agent for zsh, which reads the options from --help itself.

_arguments '*: :_files' --
