package main

import (
	"net/http"

	"nhooyr.io/websocket"
	"nhooyr.io/websocket/wsjson"
)

func accept(w http.ResponseWriter, r *http.Request) (connection, error) {
	options := websocket.AcceptOptions{Subprotocols: []string{"websock-roaming"}}
	c, err := websocket.Accept(w, r, &options)
	if err != nil {
		return connection{}, err
	}
	return connection{
		read: func() ([]byte, error) {
			_, request, err := c.Read(r.Context())
			return request, err
		},
		writeJSON: func(value interface{}) error { return wsjson.Write(r.Context(), c, value) },
		writeText: func(text string) error {
			return c.Write(r.Context(), websocket.MessageText, []byte(text))
		},
	}, nil
}
