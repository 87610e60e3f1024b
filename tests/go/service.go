// A roaming service that sends what it is asked for, over the WebSocket library of the file that is
// compiled with this one. Asked for "json 9000" it sends a text of 9,000 bytes in JSON, by the
// library's own means for that; for "text 9000" the text alone, as one frame.
//
// Usage: PROGRAM ADDRESS
package main

import (
	"fmt"
	"log"
	"net/http"
	"os"
	"strings"
)

// Filled by accept, which the library's file provides.
type connection struct {
	read      func() ([]byte, error)
	writeJSON func(value interface{}) error
	writeText func(text string) error
}

// The size, in decimal, behind as many points as make it this long.
func padded(size int) string {
	digits := fmt.Sprint(size)
	return strings.Repeat(".", size-len(digits)) + digits
}

func (c connection) answer(request []byte) error {
	var form string
	var size int
	if _, err := fmt.Sscanf(string(request), "%s %d", &form, &size); err != nil {
		return fmt.Errorf("asked for %q: %w", request, err)
	}
	if form == "json" {
		return c.writeJSON(padded(size))
	}
	return c.writeText(padded(size))
}

func serve(w http.ResponseWriter, r *http.Request) {
	c, err := accept(w, r)
	for err == nil {
		var request []byte
		if request, err = c.read(); err == nil {
			err = c.answer(request)
		}
	}
	log.Print(err)
}

func main() {
	http.HandleFunc("/roam", serve)
	log.Fatal(http.ListenAndServe(os.Args[1], nil))
}
