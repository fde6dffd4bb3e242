" Rule sets of rvusbpctl, rvusbprules(5).
if exists("b:did_ftplugin")
  finish
endif
let b:did_ftplugin = 1

setlocal comments=:# commentstring=#\ %s
" A file without a line feed at its end is refused.
setlocal fixendofline
let b:undo_ftplugin = "setlocal comments< commentstring< fixendofline<"
