# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# fish completion for kelvo, softdvb, softdvb-mux and tv_grab_kelvo. What there is to complete is read from the program's own --help, so
# that it is never older than the program.

# __kelvo_read_help PROGRAM [COMMAND...]: a line for each thing that its help has: what it is (option, command,
# positional), its name, the value that it takes, and what is said of it, with tabs between.
function __kelvo_read_help
    set -l section
    set -l waiting
    for line in ($argv --help 2>/dev/null) end
        if test -n "$waiting" # an option too long for its line has its text on the next one
            string match -qr '^ {10}' -- $line
            and printf '%s\n' $waiting\t(string trim -- $line)
            or printf '%s\n' $waiting\t
            set waiting
        end
        if string match -qr '^[A-Z][A-Za-z ]*:$' -- $line
            set section (string replace : '' -- $line)
        else if test "$section" = Subcommands
            set -l found (string match -r '^  ([a-z][a-z-]*) +(.*)' -- $line)
            and printf 'command\t%s\t\t%s\n' $found[2] "$found[3]"
        else if test "$section" = Positionals
            set -l found (string match -r '^  ([A-Z]+) ' -- $line)
            and printf 'positional\t%s\t\t\n' $found[2]
        else if string match -q '*Options' -- $section
            set -l found (string match -r '^  (-[^ ]*)(.*)$' -- $line)
            or continue
            set -l value (string match -r '^ ([^ ]+)' -- $found[3])[2]
            contains -- "$value" Excludes: Needs: REQUIRED
            and set value
            set -l said $found[3]
            test -n "$value"
            and set said (string replace -- " $value" '' $said)
            set said (string replace -r '^( in \[[^]]*\])?( REQUIRED)?( (Excludes|Needs):( -[^ ]*| [A-Z]{2,}(?= ))+)*' '' -- $said)
            set said (string trim -- $said)
            for name in (string split , -- $found[2])
                if test -n "$said"
                    printf 'option\t%s\t%s\t%s\n' $name "$value" $said
                else
                    set -a waiting option\t$name\t"$value"
                end
            end
        end
    end
end

function __kelvo_complete
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    set -l path $words[1]
    set -l help (__kelvo_read_help $path)
    set -l value
    for name in $words[2..-1]
        if test -n "$value"  # the one before wanted it
            set value
        else if test "$name" = --  # behind it stands somebody else's command
            test "$words[-1]" = --
            and __fish_complete_command
            or __fish_complete_path $word
            return
        else if string match -q -- '-*' $name
            set value (string match -r "^option\t$name\t([^\t]*)\t" -- $help)[2]
        else if string match -q -- "command"\t"$name"\t'*' $help
            set -a path $name
            set help (__kelvo_read_help $path)
        end
    end

    set -l before
    if test -z "$value" && string match -q -- '--*=*' $word  # --OPTION=VALUE
        set before (string replace -r '=.*' '=' -- $word)
        set value (string match -r "^option\t"(string trim -r -c = -- $before)"\t([^\t]*)\t" -- $help)[2]
        set word (string replace -- $before '' $word)
    else if test -z "$value"
        if string match -q -- '-*' $word
            string replace -rf "^option\t([^\t]*)\t[^\t]*\t" '$1\t' -- $help
            return
        end
        set -l commands (string replace -rf "^command\t([^\t]*)\t\t" '$1\t' -- $help)
        if test -n "$commands"
            printf '%s\n' $commands
            return
        end
        set value (string match -r "^positional\t([A-Z]+)" -- $help)[2]
        contains -- "$value" IN OUT DESCRIPTION
        and set value FILE
    end
    switch "$value"
        case '*:{*}*'
            string split , -- (string match -r '\{(.*?)\}' -- $value)[2]
        case 'FILE|NAME'
            __fish_complete_path $word
            test -d /usr/share/dvb/dvb-t
            and ls /usr/share/dvb/dvb-t
        case 'NAME?+NAME?'
            $words[1] --list-devices 2>/dev/null | string match -r '^[a-z0-9]+(?=:)'
        case 'N:*'
            string match -r '[0-9]+$' -- /dev/dvb/adapter*
        case 'DATE*'
            printf '%s\n' today tomorrow yesterday
        case '*FOLDER*' '*DIR*'
            __fish_complete_directories $word
        case '*=FILE'
            __fish_complete_path (string replace -r '.*=' '' -- $word) | string replace -r '^' (string match -r '.*=' -- $word)
        case '*FILE*' '*SVG*' '*HTML*'
            __fish_complete_path $word
        case '*|*'
            # Words to choose from; those in capitals stand for something else.
            string split '|' -- $value | string match -rv '[A-Z]'
    end | string replace -r '^' -- "$before"
end

for program in kelvo softdvb softdvb-mux tv_grab_kelvo
    complete -c $program -f -a '(__kelvo_complete)'
end
