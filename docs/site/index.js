// Writes the index of the sections in siteSections, for write-search-index.py.
"use strict";

// Names stay whole; std::bad_alloc is two words. The search takes queries apart in the same way.
lunr.tokenizer.separator = /[^A-Za-z0-9_]+/;
print(JSON.stringify(lunr(function () {
  this.ref("number");
  this.field("heading", { boost: 6 });
  this.field("page", { boost: 3 });
  this.field("text");
  siteSections.forEach(function (section, number) {
    this.add({ number: number, page: section[0], heading: section[1] || section[0], text: section[3] });
  }, this);
})));
