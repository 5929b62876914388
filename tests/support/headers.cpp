// headers.cpp: nothing of its own; the headers that most tests include are compiled for it, and used by them.
