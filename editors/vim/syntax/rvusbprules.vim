" Vim syntax file
" Language: rule sets of rvusbpctl, rvusbprules(5)
if exists("b:current_syntax")
  finish
endif

syntax case match
syntax iskeyword @,48-57,_,-

" What no later item claims is a word that no rule may have.
syntax match rvusbprulesError /[^[:space:]#!\\][^[:space:]#]*/
syntax match rvusbprulesNot /!/
syntax match rvusbprulesContinuation /\\$/
syntax match rvusbprulesComment /#.*$/ contains=rvusbprulesTodo,@Spell
syntax keyword rvusbprulesTodo contained TODO FIXME XXX

syntax keyword rvusbprulesAction share block
syntax keyword rvusbprulesClause quick rdesk takeaway built-in
syntax keyword rvusbprulesClause host serial port override-name override-serial nextgroup=rvusbprulesText skipwhite
syntax keyword rvusbprulesClause name nextgroup=rvusbprulesMatch skipwhite
syntax keyword rvusbprulesClause hwid class nextgroup=rvusbprulesNumbers skipwhite

" Arguments: one word, quotes and all. A "!" cannot begin one.
syntax match rvusbprulesMatch contained /\<\%(is\|contains\)\>/ nextgroup=rvusbprulesText skipwhite
syntax match rvusbprulesText contained /"\@!!\@!\%(\\.\|"\%([^"\\]\|\\.\)*"\|[^[:space:]"\\#]\)\+/
syntax match rvusbprulesText contained /"!\@!\%([^"\\]\|\\.\)*"\%(\\.\|"\%([^"\\]\|\\.\)*"\|[^[:space:]"\\#]\)*/
syntax match rvusbprulesNumbers contained /\x\{1,4}\%(:\x\{0,4}\)\{0,2}\%([[:space:]#]\|$\)\@=/

highlight default link rvusbprulesAction Statement
highlight default link rvusbprulesClause Type
highlight default link rvusbprulesMatch Keyword
highlight default link rvusbprulesText String
highlight default link rvusbprulesNumbers Number
highlight default link rvusbprulesNot Operator
highlight default link rvusbprulesContinuation Special
highlight default link rvusbprulesComment Comment
highlight default link rvusbprulesTodo Todo
highlight default link rvusbprulesError Error

let b:current_syntax = "rvusbprules"
