// The search over all pages, and the button that shows the tree of pages where the screen is narrow. The search itself
// needs no browser; it keeps to what every engine understands.
"use strict";

// Finds sections of the pages. write-search-index.py says what siteSections and siteIndex are.
var siteSearch = {
  // The words of a query, as index.js takes texts apart.
  words: function (query) {
    return query.toLowerCase().match(/[a-z0-9_]+/g) || [];
  },

  // The sections in which all words of the query are, or parts of such words, the best first.
  find: function (index, query) {
    var words = siteSearch.words(query);
    if (words.length === 0) {
      return [];
    }
    // Each word may be another of the same stem, or part of a longer one; the former counts more.
    var hits = words.map(function (word) {
      var scores = {};
      index.query(function (wanted) {
        wanted.term(word, { boost: 10 });
        wanted.term("*" + word + "*", { usePipeline: false });
      }).forEach(function (hit) {
        scores[hit.ref] = hit.score;
      });
      return scores;
    });
    var score = function (number) {
      return hits.reduce(function (sum, scores) { return sum + scores[number]; }, 0);
    };
    return Object.keys(hits[0]).filter(function (number) {
      return hits.every(function (scores) { return number in scores; });
    }).sort(function (one, other) {
      return score(other) - score(one);
    }).map(function (number) {
      return siteSections[number];
    });
  },

  // The part of a text around its first word of the query, in pieces; every second one is such a word.
  excerpt: function (text, query) {
    var words = new RegExp("(" + siteSearch.words(query).join("|") + ")", "i");
    var begin = text.search(words) - 60;
    begin = begin <= 0 ? 0 : text.indexOf(" ", begin) + 1;
    var end = text.indexOf(" ", begin + 200);
    return ((begin > 0 ? "… " : "") + (end < 0 ? text.slice(begin) : text.slice(begin, end) + " …")).split(
      new RegExp(words.source, "gi"));
  }
};

if (typeof document !== "undefined") {
  (function () {
    var shownAtMost = 40;
    var box = document.getElementById("site-search");
    var menu = document.getElementById("site-menu");
    var results = document.createElement("div");
    var index = null;
    results.id = "site-results";
    results.setAttribute("aria-live", "polite");
    document.getElementById("doc-content").prepend(results);

    menu.onclick = function () {
      menu.setAttribute("aria-expanded", document.body.classList.toggle("menu-open"));
    };

    // A page of the file system may not fetch data; it may load scripts.
    function load(scripts, whenLoaded) {
      if (scripts.length === 0) {
        index = lunr.Index.load(siteIndex);
        whenLoaded();
        return;
      }
      var script = document.createElement("script");
      script.src = scripts[0];
      script.onload = function () { load(scripts.slice(1), whenLoaded); };
      document.head.append(script);
    }

    function element(name, text, parent) {
      var made = document.createElement(name);
      made.textContent = text;
      parent.append(made);
      return made;
    }

    function show() {
      var query = box.value.trim();
      document.body.classList.toggle("searching", query !== "");
      results.textContent = "";
      if (query === "" || !index) {
        return;
      }
      var found = siteSearch.find(index, query);
      element("p", found.length === 0 ? "No page has “" + query + "”." :
        found.length > shownAtMost ? "The first " + shownAtMost + " of " + found.length + " sections" :
        found.length === 1 ? "One section" : found.length + " sections", results);
      found.slice(0, shownAtMost).forEach(function (section) {
        var entry = element("article", "", results);
        var link = element("a", section[1] || section[0], entry);
        link.href = section[2];
        link.onclick = function () { box.value = ""; show(); };
        if (section[1]) {
          element("small", section[0], entry);
        }
        var text = element("p", "", entry);
        siteSearch.excerpt(section[3], query).forEach(function (piece, number) {
          if (number % 2 === 1) {
            element("mark", piece, text);
          } else {
            text.append(piece);
          }
        });
      });
    }

    var wanted = false;
    function search() {
      if (!wanted) {
        wanted = true;
        load(["lunr.min.js", "search-index.js"], show);
      }
      show();
    }

    box.onfocus = search;
    // The address holds the query, so that the way back from a page that was found leads to the results.
    box.oninput = function () {
      history.replaceState(null, "", box.value ? "#search=" + encodeURIComponent(box.value) : "#");
      search();
    };
    box.onkeydown = function (event) {
      if (event.key === "Escape") {
        box.value = "";
        box.oninput();
      }
    };
    if (location.hash.indexOf("#search=") === 0) {
      box.value = decodeURIComponent(location.hash.slice("#search=".length));
      search();
    }
  }());
}
