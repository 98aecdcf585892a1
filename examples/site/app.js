document.title += " (loaded)";
