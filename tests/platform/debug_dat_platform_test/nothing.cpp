/// Stands for an older version of a library.
