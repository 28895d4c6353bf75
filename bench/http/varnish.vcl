# Varnish as it comes: it serves many clients of one cold object from one fetch, and parts from whole objects. Its objects
# lie in a mapped file, since the others' are on disk too; in memory is its usual place.
vcl 4.1;

backend store {
  .host = "127.0.0.1";
  .port = "@STORE@";
}
