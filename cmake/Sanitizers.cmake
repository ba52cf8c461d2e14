if(LKDH_SANITIZE)
  # Applies to every target, tests and the host command included, so that the
  # plug-in loaded with dlopen runs under the same runtime as its host.
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
