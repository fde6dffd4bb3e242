# Functions whose part is played in programs that link the sources here: the engine's output, the ends of the process
# and of the editor, and the mappings and files that an end leaves behind.
set(rv_offline_client_options -Wl,--wrap=_ZN8RvKQueue5writeEP21RvKQueueEventProtocolPKvm)
set(rv_conversation_options
  -Wl,--wrap=exit,--wrap=_Z16runEditorProcessPKcS0_,--wrap=_Z10areYouSurePKc,--wrap=mmap,--wrap=munmap,--wrap=mkostemp)
