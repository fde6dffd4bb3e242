" Rule sets of rvusbpctl: by their name, while `rvusbpctl rule edit` works on them, and *.rules by their first rule
" (other programs have files of that name, too).
autocmd BufNewFile,BufRead *.rvusbprules,/tmp/tmp.XXXXXX?????? set filetype=rvusbprules
autocmd BufNewFile,BufRead *.rules if getline(nextnonblank(search('^\s*[^#[:space:]]', 'cnw')))
      \ =~# '^\s*\%(share\|block\)\%(\s\|$\)' | set filetype=rvusbprules | endif
