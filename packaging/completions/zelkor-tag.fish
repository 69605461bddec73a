# fish completion for zelkor-tag: its options, the level names, and the clip
# names of the tag library for --select-tag.

function __zelkor_tag_clips
    set -l command (commandline -opc)[1]
    $command --list-tags 2>/dev/null | string sub --start 3
end

complete -c zelkor-tag -s h -l help -d 'Show the options'
complete -c zelkor-tag -l version -d 'Show the version'
complete -c zelkor-tag -l tag -r -F -d 'The tag clip'
complete -c zelkor-tag -l interval -x -d 'Seconds between tags, 5 to 600'
complete -c zelkor-tag -l level -x -a 'LOW MID HIGH' -d 'Level relative to the track'
complete -c zelkor-tag -l jobs -x -d 'Tracks tagged at once'
complete -c zelkor-tag -l list-tags -d 'List the tag library'
complete -c zelkor-tag -l add-tag -r -F -d 'Copy a clip into the library and select it'
complete -c zelkor-tag -l select-tag -x -a '(__zelkor_tag_clips)' -d 'Select a clip of the library'
