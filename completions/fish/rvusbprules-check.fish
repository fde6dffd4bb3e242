# Names of files, which fish completes by itself.
complete -c rvusbprules-check -F
