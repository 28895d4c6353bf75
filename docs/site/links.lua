-- Links between pages of the book: from the text files to what they become, and out of docs/ to copies beside them.
function Link(link)
  link.target = link.target:gsub("^%.%./", ""):gsub("^docs/", ""):gsub("^([%w]+)%.md", "%1.html"):gsub("^README", "index")
  if link.target:match("^diskcache/.*%.h$") or link.target:match("^client/.*%.h$") then link.target = "api/files.html" end
  return link
end
function Image(image)
  image.src = image.src:gsub("^docs/", "")
  return image
end
