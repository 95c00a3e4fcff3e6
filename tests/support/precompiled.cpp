// Holds nothing: the headers that tests share are compiled along with it.
