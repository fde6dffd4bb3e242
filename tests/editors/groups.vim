" Writes for each line of the buffer which syntax groups its parts have, as "part=Group part=Group", to the file
" g:answer. What has no group is left out.
function s:Groups(number)
  let line = getline(a:number)
  let parts = []
  let last = ''
  for column in range(1, len(line))
    let group = substitute(synIDattr(synID(a:number, column, 1), 'name'), 'rvusbprules', '', '')
    if group ==# ''
      let last = ''
    elseif group ==# last
      let parts[-1][0] .= line[column - 1]
    else
      call add(parts, [line[column - 1], group])
      let last = group
    endif
  endfor
  return join(map(parts, {_, part -> part[0] .. '=' .. part[1]}), ' ')
endfunction

call writefile([&filetype] + map(range(1, line('$')), {_, number -> s:Groups(number)}), g:answer)
