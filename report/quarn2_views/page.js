"use strict";
(() => {
  const box = document.getElementById("search");
  if (box) {
    const rows = [...document.querySelectorAll("#users tbody tr")];
    const names = rows.map((row) => row.cells[0].textContent.toLowerCase());
    const count = document.getElementById("search-count");
    const filter = () => {
      const wanted = box.value.trim().toLowerCase();
      let shown = 0;
      rows.forEach((row, place) => {
        row.hidden = !names[place].includes(wanted);
        shown += row.hidden ? 0 : 1;
      });
      count.textContent = `${shown} of ${rows.length} users`;
    };
    box.addEventListener("input", filter);
    box.form.addEventListener("submit", (event) => event.preventDefault());
    box.form.hidden = false;
    filter();
  }
  // A narrow window shows the last days of a plot first.
  document.querySelectorAll("figure .wide").forEach((frame) => {
    frame.scrollLeft = frame.scrollWidth;
  });
  // A page that no job replaces any more must not look like the present.
  const hours = Math.floor((Date.now() / 1000 - Number(document.body.dataset.made)) / 3600);
  if (hours >= 26) {
    const old = document.getElementById("old");
    old.textContent = `This page is ${hours} hours old. The job that makes it may have stopped.`;
    old.hidden = false;
  }
})();
