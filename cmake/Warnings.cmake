# Warnings on for everything we build; third-party headers come in as system includes.
add_compile_options(-Wall -Wextra)
