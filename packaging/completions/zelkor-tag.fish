# fish completion for zelkor-tag: its options, the level names, and the clip
# names of the tag library for --select-tag.

function __zelkor_tag_clips
    set -l command (commandline -opc)[1]
    $command --list-tags 2>/dev/null | string sub --start 3
end

complete -c zelkor-tag -s h -l help -d 'Show the options'
complete -c zelkor-tag -l version -d 'Show the version'
complete -c zelkor-tag -s t -l tag -r -F -d 'The tag clip'
complete -c zelkor-tag -s i -l interval -x -d 'Seconds between tags, 5 to 600'
complete -c zelkor-tag -s l -l level -x -a 'LOW MID HIGH' -d 'Level relative to the track'
complete -c zelkor-tag -s j -l jobs -x -d 'Tracks tagged at once, 0 for one per core'
complete -c zelkor-tag -s r -l recursive -d 'Sub-folders too'
complete -c zelkor-tag -s o -l output-dir -x -a '(__fish_complete_directories)' -d 'Write outputs under this folder'
complete -c zelkor-tag -s f -l format -x -a 'same mp3 wav' -d 'The output format'
complete -c zelkor-tag -l skip-existing -d 'Skip tracks already tagged'
complete -c zelkor-tag -l replace -d 'Replace earlier outputs once complete'
complete -c zelkor-tag -s n -l dry-run -d 'Print what would be written, write nothing'
complete -c zelkor-tag -l json -d 'One JSON object per track'
complete -c zelkor-tag -s q -l quiet -d 'Only failures on standard output'
complete -c zelkor-tag -l no-cache -d 'Measure every track afresh'
complete -c zelkor-tag -s v -l verbose -d 'Print each ffmpeg command line'
complete -c zelkor-tag -s 0 -l null -d 'Paths on standard input end with a NUL'
complete -c zelkor-tag -l color -x -a 'auto never always' -d 'Failures in colour'
complete -c zelkor-tag -l watch -x -a '(__fish_complete_directories)' -d 'Tag every track that appears in a folder'
complete -c zelkor-tag -l list-tags -d 'List the tag library'
complete -c zelkor-tag -l add-tag -r -F -d 'Copy a clip into the library and select it'
complete -c zelkor-tag -l select-tag -x -a '(__zelkor_tag_clips)' -d 'Select a clip of the library'
